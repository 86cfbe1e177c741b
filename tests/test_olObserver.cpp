// Tests of DtObservee and DtObserver: registration, the reasons told, each side dying first.
#include <olutil/olObserver.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Why = DtObservee::DtWhyNotifyObserver;

// A plain notification target that records each reason, and whether it came from `from`.
class Recorder : public DtAbsNotifyObserver
{
public:
   int notifyFromObserved(DtObservee* observee, Why const& why) override
   {
      heard += std::to_string(static_cast<int>(why)) + (observee == from ? ";" : "?;");
      if (onCall)
         onCall();
      return 1;
   }
   DtObservee const* from = nullptr;
   std::string heard;
   std::function<void()> onCall;
};

// A DtObserver that records what it hears as text.
class Watcher : public DtObserver
{
public:
   int start(DtObservee* observee) { return internalStartObserving(observee); }
   int stop(DtObservee* observee) { return internalStopObserving(observee); }
   std::string heard;

protected:
   void pendingDeleteOfYourObserved(DtObservee const*) override { heard += "gone;"; }
   void observedNotification(DtObservee*, Why const& why) override
   {
      heard += "why" + std::to_string(static_cast<int>(why)) + ";";
   }
};

}  // namespace

TEST(DtObserveeTest, RegistrationIsOncePerObserverAndCopiesLeaveObserversBehind)
{
   Recorder recorder, other, first, second, third;  // outlive the observees
   DtObservee observee, assigned;
   recorder.from = &observee;
   EXPECT_TRUE(observee.registerObservedBy(&recorder) == 1 &&
               observee.registerObservedBy(&recorder) == 0);
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   DtObservee copy(observee);
   assigned.registerObservedBy(&other);
   assigned = observee;
   copy.notifyAllObservers(DtObservee::DtWhyApplication);
   assigned.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ("2;|2?;", recorder.heard + "|" + other.heard)
       << "notified once, not through copies; assignment keeps the target's own";
   EXPECT_TRUE(observee.deRegisterObservedBy(&recorder) == 1 &&
               observee.deRegisterObservedBy(&recorder) == 0);

   // An observer may leave, or remove another, during a notification.
   for (Recorder* r : {&first, &second, &third})
      observee.registerObservedBy(r);
   first.onCall = [&] { observee.deRegisterObservedBy(&second); };
   third.onCall = [&] { observee.deRegisterObservedBy(&third); };
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ("2;|2?;||2?;",
             recorder.heard + "|" + first.heard + "|" + second.heard + "|" + third.heard)
       << "the second was removed before its turn";
   EXPECT_EQ(1, observee.observerCount());
}

TEST(DtObserveeTest, TheReasonsThatDestroyTheDestructorAndTheApplicationSend)
{
   // The reasons sent before the end, then destroy() or delete; what was heard.
   auto const end = [](std::vector<int> const& before, bool useDestroy)
   {
      Recorder recorder;
      auto* observee = new DtObservee;
      recorder.from = observee;
      observee->registerObservedBy(&recorder);
      for (int why : before)
         observee->notifyAllObservers(static_cast<Why>(why));
      useDestroy ? DtObservee::destroy(observee) : delete observee;
      return recorder.heard;
   };
   EXPECT_EQ("0;", end({}, true)) << "reason 0, and the destructor sends nothing more";
   EXPECT_EQ("2;1;", end({2}, false)) << "plain delete: reason 1 from the destructor";
   EXPECT_EQ("0;", end({0}, false)) << "a deletion told by hand is not told again";
   EXPECT_EQ("0;5;1;", end({0, 5}, false)) << "a later reason clears the told deletion";
   DtObservee::destroy(nullptr);
}

TEST(DtObserverTest, EitherSideMayDieFirst)
{
   for (bool useDestroy : {true, false})
   {
      SCOPED_TRACE(useDestroy ? "destroy" : "delete");
      Watcher watcher;
      auto* dying = new DtObservee;
      DtObservee staying;
      EXPECT_TRUE(watcher.start(dying) == 1 && watcher.start(dying) == 0);
      watcher.start(&staying);
      useDestroy ? DtObservee::destroy(dying) : delete dying;
      EXPECT_EQ(1, watcher.observedCount()) << "the other observee is still watched";
      staying.notifyAllObservers(static_cast<Why>(7));
      EXPECT_EQ("gone;why7;", watcher.heard);
      // Its destructor must not touch the dead observee (as the sanitizer build sees).
   }
   DtObservee observee;
   {
      Watcher watcher, second;
      watcher.start(&observee);
      second.start(&observee);
   }
   EXPECT_EQ(0, observee.observerCount());
   observee.notifyAllObservers(DtObservee::DtWhyApplication);  // calls no dead observer
}

TEST(DtObserverTest, StopCopiesAndTheNotifierKeepBothSidesInStep)
{
   DtObservee one, two, three;
   Watcher watcher;
   watcher.start(&three);
   EXPECT_TRUE(watcher.stop(&three) == 1 && watcher.stop(&three) == 0 && !three.observerCount());
   watcher.start(&one);
   watcher.start(&two);
   Watcher copy(watcher), assigned;
   assigned.start(&three);
   assigned = watcher;
   EXPECT_EQ(0, three.observerCount()) << "stopped observing what it observed";
   EXPECT_EQ(2, copy.observedCount());
   one.notifyAllObservers(static_cast<Why>(3));
   EXPECT_EQ("why3;|why3;|why3;", watcher.heard + "|" + copy.heard + "|" + assigned.heard);

   EXPECT_EQ(0, DtObserverNotifier().notifyFromObserved(&one, DtObservee::DtWhyApplication))
       << "a notifier without an observer forwards nothing";
}
