//===- olutil/olObserver.h - Observers of object lifetimes and changes -*- C++ -*-===//
//
// Family: Concurrency.
//
// A DtObservee keeps a list of observers and tells each of them why it
// notifies: that it is about to be destroyed, that it is being deleted, or a
// reason of the application's. A DtObserver keeps the list of what it
// observes. Each side leaves the other cleanly when it dies: a dying observee
// tells its observers, which stop observing it, and a dying observer takes
// itself off every observee's list.
//
// No locks: observees and their observers belong to one thread, and observers
// are called on the thread that notifies. An observer may start or stop
// observing from inside a notification; it must not delete the observee that
// is notifying.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLOBSERVER_H
#define OLUTIL_OLOBSERVER_H

#include <olutil/olList.h>

class DtAbsNotifyObserver;

class DtObservee
{
public:
   /// Why an observee notifies, held in an integer: the application may use
   /// any value from DtWhyApplication on for reasons of its own.
   enum DtWhyNotifyObserver : int
   {
      /// About to be destroyed, sent by destroy() while the object is whole.
      DtWhyDestroy = 0,
      /// Being deleted, sent by the destructor unless destroy() told already.
      DtWhyDelete = 1,
      DtWhyApplication = 2
   };

   DtObservee() = default;
   /// A copy starts with no observers: observers stay with the object they
   /// registered on.
   DtObservee(DtObservee const&);
   /// Keeps this object's observers.
   DtObservee& operator=(DtObservee const&);
   /// Sends DtWhyDelete to every observer unless destroy() sent DtWhyDestroy.
   virtual ~DtObservee();

   /// 0 if the observer is on the list already (or null), else adds it and
   /// gives 1.
   virtual int registerObservedBy(DtAbsNotifyObserver* observer);
   /// 0 if the observer is not on the list, else removes it and gives 1.
   virtual int deRegisterObservedBy(DtAbsNotifyObserver* observer);
   /// Tells every observer, in the order they registered.
   virtual void notifyAllObservers(DtWhyNotifyObserver const& why);

   /// Sends DtWhyDestroy to every observer, then deletes the object through
   /// its virtual destructor, which sends nothing further. Code that owns an
   /// observee destroys it this way, so that observers hear of the deletion
   /// while the object is still whole. Null does nothing.
   static void destroy(DtObservee* observee);

   /// The number of registered observers.
   int observerCount() const { return observers.count(); }

protected:
   /// Calls notifyFromObserved(this, why) on each observer still registered
   /// when its turn comes, then records whether the deletion was told.
   virtual void internalNotifyAllObservers(DtWhyNotifyObserver const& why);

private:
   // The order of these fields is part of the binary layout.
   DtList observers;  // of DtAbsNotifyObserver*
   bool deleteNotified = false;
};

/// What an observee calls. Returns 1 if the notification was taken, 0 if not.
class DtAbsNotifyObserver
{
public:
   virtual ~DtAbsNotifyObserver();
   virtual int notifyFromObserved(DtObservee* observee,
                                  DtObservee::DtWhyNotifyObserver const& why) = 0;
};

class DtObserver;

/// The link by which an observee reaches a DtObserver.
class DtObserverNotifier : public DtAbsNotifyObserver
{
public:
   explicit DtObserverNotifier(DtObserver* observer = nullptr) : observer(observer) {}
   /// 0 when the link is cut (null observer); otherwise forwards to the
   /// observer and gives 1.
   int notifyFromObserved(DtObservee* observee,
                          DtObservee::DtWhyNotifyObserver const& why) override;

   DtObserver* observer;
};

class DtObserver
{
public:
   DtObserver();
   /// Observes what `other` observes.
   DtObserver(DtObserver const& other);
   /// Stops observing what it observed, then observes what `other` observes.
   DtObserver& operator=(DtObserver const& other);
   /// Takes itself off the list of everything it observes.
   virtual ~DtObserver();

   /// The number of observees.
   int observedCount() const { return observed.count(); }

protected:
   /// Starts observing: adds the observee to this list and registers with it.
   /// 0 if already observing it (or null), else 1.
   virtual int internalStartObserving(DtObservee* observee);
   /// Stops observing: takes the observee off this list and deregisters from
   /// it. 0 if not observing it, else 1.
   virtual int internalStopObserving(DtObservee* observee);
   /// Something observed is about to go (DtWhyDestroy or DtWhyDelete). This
   /// observer stops observing it as soon as the call returns.
   virtual void pendingDeleteOfYourObserved(DtObservee const* observee);
   /// Something observed notified for a reason of the application's.
   virtual void observedNotification(DtObservee* observee,
                                     DtObservee::DtWhyNotifyObserver const& why);

private:
   friend class DtObserverNotifier;
   void takeNotification(DtObservee* observee, DtObservee::DtWhyNotifyObserver const& why);

   // The order of these fields is part of the binary layout.
   DtList observed;  // of DtObservee*
   DtObserverNotifier notifier;
};

#endif  // OLUTIL_OLOBSERVER_H
