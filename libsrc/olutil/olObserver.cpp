//===- olObserver.cpp - Observers of object lifetimes and changes ---------===//
//
// Family: Concurrency.
//
//===----------------------------------------------------------------------===//
#include <olutil/olObserver.h>

#include <vector>

namespace
{

bool isDeletion(DtObservee::DtWhyNotifyObserver const& why)
{
   return why == DtObservee::DtWhyDestroy || why == DtObservee::DtWhyDelete;
}

}  // namespace

// =============================================================== DtObservee

DtObservee::DtObservee(DtObservee const&) : DtObservee()
{
}

DtObservee& DtObservee::operator=(DtObservee const&)
{
   return *this;
}

DtObservee::~DtObservee()
{
   if (!deleteNotified)
      internalNotifyAllObservers(DtWhyDelete);
}

int DtObservee::registerObservedBy(DtAbsNotifyObserver* observer)
{
   if (!observer || observers.itemLookup(observer))
      return 0;
   observers.add(observer);
   return 1;
}

int DtObservee::deRegisterObservedBy(DtAbsNotifyObserver* observer)
{
   DtListItem* const item = observer ? observers.itemLookup(observer) : nullptr;
   if (!item)
      return 0;
   observers.remove(item);
   return 1;
}

void DtObservee::notifyAllObservers(DtWhyNotifyObserver const& why)
{
   internalNotifyAllObservers(why);
}

void DtObservee::destroy(DtObservee* observee)
{
   if (!observee)
      return;
   observee->notifyAllObservers(DtWhyDestroy);
   delete observee;
}

void DtObservee::internalNotifyAllObservers(DtWhyNotifyObserver const& why)
{
   // Observers leave the list when they hear of a deletion, and may register
   // or leave at any notification: the walk goes over a snapshot and skips
   // whoever is no longer registered when its turn comes.
   std::vector<DtAbsNotifyObserver*> snapshot;
   snapshot.reserve(static_cast<std::size_t>(observers.count()));
   for (DtListItem* item = observers.first(); item; item = item->next())
      snapshot.push_back(static_cast<DtAbsNotifyObserver*>(item->data()));
   for (DtAbsNotifyObserver* observer : snapshot)
   {
      if (observer && observers.itemLookup(observer))
         observer->notifyFromObserved(this, why);
   }
   deleteNotified = (why == DtWhyDestroy);
}

// ====================================================== DtAbsNotifyObserver

DtAbsNotifyObserver::~DtAbsNotifyObserver() = default;

int DtObserverNotifier::notifyFromObserved(DtObservee* observee,
                                           DtObservee::DtWhyNotifyObserver const& why)
{
   if (!observer)
      return 0;
   observer->takeNotification(observee, why);
   return 1;
}

// =============================================================== DtObserver

DtObserver::DtObserver() : notifier(this)
{
}

DtObserver::DtObserver(DtObserver const& other) : notifier(this)
{
   for (DtListItem* item = other.observed.first(); item; item = item->next())
      internalStartObserving(static_cast<DtObservee*>(item->data()));
}

DtObserver& DtObserver::operator=(DtObserver const& other)
{
   if (this == &other)
      return *this;
   while (DtListItem* const item = observed.first())
      internalStopObserving(static_cast<DtObservee*>(item->data()));
   for (DtListItem* item = other.observed.first(); item; item = item->next())
      internalStartObserving(static_cast<DtObservee*>(item->data()));
   return *this;
}

DtObserver::~DtObserver()
{
   for (DtListItem* item = observed.first(); item; item = item->next())
      static_cast<DtObservee*>(item->data())->deRegisterObservedBy(&notifier);
   notifier.observer = nullptr;
}

int DtObserver::internalStartObserving(DtObservee* observee)
{
   if (!observee || observed.itemLookup(observee))
      return 0;
   observed.add(observee);
   observee->registerObservedBy(&notifier);
   return 1;
}

int DtObserver::internalStopObserving(DtObservee* observee)
{
   DtListItem* const item = observee ? observed.itemLookup(observee) : nullptr;
   if (!item)
      return 0;
   observed.remove(item);
   observee->deRegisterObservedBy(&notifier);
   return 1;
}

void DtObserver::pendingDeleteOfYourObserved(DtObservee const*)
{
}

void DtObserver::observedNotification(DtObservee*, DtObservee::DtWhyNotifyObserver const&)
{
}

void DtObserver::takeNotification(DtObservee* observee, DtObservee::DtWhyNotifyObserver const& why)
{
   if (!isDeletion(why))
   {
      observedNotification(observee, why);
      return;
   }
   // The observee is going: the observer hears of it, then both sides forget
   // each other, so neither calls the other once it is gone.
   pendingDeleteOfYourObserved(observee);
   internalStopObserving(observee);
}
