// Tests of DtObservee and DtObserver: registration, the reasons told, and each
// side dying first.
#include <olutil/olObserver.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Why = DtObservee::DtWhyNotifyObserver;

// A plain notification target that records every call.
class Recorder : public DtAbsNotifyObserver
{
public:
   int notifyFromObserved(DtObservee* observee, Why const& why) override
   {
      calls.push_back({observee, static_cast<int>(why)});
      if (onCall)
         onCall();
      return 1;
   }
   struct Call
   {
      DtObservee* observee;
      int why;
      bool operator==(Call const& other) const
      {
         return observee == other.observee && why == other.why;
      }
   };
   std::vector<Call> calls;
   std::function<void()> onCall;
};

// A DtObserver that records what it hears as text.
class Watcher : public DtObserver
{
public:
   Watcher() = default;
   Watcher(Watcher const&) = default;
   Watcher& operator=(Watcher const&) = default;
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

TEST(DtObserveeTest, RegistrationIsOncePerObserver)
{
   DtObservee observee;
   Recorder recorder;
   EXPECT_EQ(1, observee.registerObservedBy(&recorder));
   EXPECT_EQ(0, observee.registerObservedBy(&recorder));
   EXPECT_EQ(0, observee.registerObservedBy(nullptr));
   EXPECT_EQ(1, observee.observerCount());
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ(1u, recorder.calls.size()) << "notified once";
   EXPECT_EQ(1, observee.deRegisterObservedBy(&recorder));
   EXPECT_EQ(0, observee.deRegisterObservedBy(&recorder));
   EXPECT_EQ(0, observee.deRegisterObservedBy(nullptr));
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ(1u, recorder.calls.size());
}

TEST(DtObserveeTest, TheReasonsThatDestroyTheDestructorAndTheApplicationSend)
{
   struct Case
   {
      char const* what;
      std::vector<int> before;  // reasons sent before the end
      bool useDestroy;
      std::vector<int> heard;
   } const cases[] = {
       {"destroy: reason 0, and the destructor sends nothing more", {}, true, {0}},
       {"plain delete: reason 1 from the destructor", {}, false, {1}},
       {"an application reason, then delete", {2}, false, {2, 1}},
       {"a deletion told by hand is not told again", {0}, false, {0}},
       {"a later reason clears the told deletion", {0, 5}, false, {0, 5, 1}},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      Recorder recorder;
      auto* observee = new DtObservee;
      observee->registerObservedBy(&recorder);
      for (int why : c.before)
         observee->notifyAllObservers(static_cast<Why>(why));
      if (c.useDestroy)
         DtObservee::destroy(observee);
      else
         delete observee;
      std::vector<int> heard;
      for (Recorder::Call const& call : recorder.calls)
      {
         EXPECT_EQ(observee, call.observee);
         heard.push_back(call.why);
      }
      EXPECT_EQ(c.heard, heard);
   }
   DtObservee::destroy(nullptr);
}

TEST(DtObserveeTest, CopiesLeaveTheObserversBehind)
{
   DtObservee original;
   Recorder recorder;
   original.registerObservedBy(&recorder);
   DtObservee copy(original);
   EXPECT_EQ(0, copy.observerCount());
   DtObservee other;
   Recorder otherRecorder;
   other.registerObservedBy(&otherRecorder);
   other = original;
   EXPECT_EQ(1, other.observerCount());
   other.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_TRUE(recorder.calls.empty());
   EXPECT_EQ(1u, otherRecorder.calls.size());
   original.deRegisterObservedBy(&recorder);
   other.deRegisterObservedBy(&otherRecorder);
}

TEST(DtObserveeTest, AnObserverMayLeaveOrRemoveAnotherDuringANotification)
{
   DtObservee observee;
   Recorder first, second, third;
   observee.registerObservedBy(&first);
   observee.registerObservedBy(&second);
   observee.registerObservedBy(&third);
   first.onCall = [&] { observee.deRegisterObservedBy(&second); };
   second.onCall = [&] { ADD_FAILURE() << "removed before its turn"; };
   third.onCall = [&] { observee.deRegisterObservedBy(&third); };
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ(1u, first.calls.size());
   EXPECT_TRUE(second.calls.empty());
   EXPECT_EQ(1u, third.calls.size());
   EXPECT_EQ(1, observee.observerCount());
   first.onCall = nullptr;
   observee.deRegisterObservedBy(&first);
}

TEST(DtObserverTest, AnObserveeDyingFirstIsForgottenByItsObservers)
{
   for (bool useDestroy : {true, false})
   {
      SCOPED_TRACE(useDestroy ? "destroy" : "delete");
      Watcher watcher;
      auto* dying = new DtObservee;
      DtObservee staying;
      EXPECT_EQ(1, watcher.start(dying));
      EXPECT_EQ(0, watcher.start(dying));
      EXPECT_EQ(0, watcher.start(nullptr));
      watcher.start(&staying);
      EXPECT_EQ(1, dying->observerCount());
      if (useDestroy)
         DtObservee::destroy(dying);
      else
         delete dying;
      EXPECT_EQ("gone;", watcher.heard);
      EXPECT_EQ(1, watcher.observedCount()) << "the other observee is still watched";
      staying.notifyAllObservers(static_cast<Why>(7));
      EXPECT_EQ("gone;why7;", watcher.heard);
      // The watcher's destructor must not touch the dead observee (the
      // sanitizer build catches it if it does).
   }
}

TEST(DtObserverTest, AnObserverDyingFirstIsNoLongerCalled)
{
   DtObservee observee;
   {
      Watcher watcher;
      watcher.start(&observee);
      Watcher second;
      second.start(&observee);
      EXPECT_EQ(2, observee.observerCount());
   }
   EXPECT_EQ(0, observee.observerCount());
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
}

TEST(DtObserverTest, StartAndStopKeepBothSidesInStep)
{
   DtObservee observee;
   Watcher watcher;
   watcher.start(&observee);
   EXPECT_EQ(1, watcher.stop(&observee));
   EXPECT_EQ(0, watcher.stop(&observee));
   EXPECT_EQ(0, watcher.stop(nullptr));
   EXPECT_EQ(0, observee.observerCount());
   EXPECT_EQ(0, watcher.observedCount());
   observee.notifyAllObservers(DtObservee::DtWhyApplication);
   EXPECT_EQ("", watcher.heard);
}

TEST(DtObserverTest, CopiesObserveWhatTheSourceObserves)
{
   DtObservee one, two, three;
   Watcher watcher;
   watcher.start(&one);
   watcher.start(&two);
   Watcher copy(watcher);
   EXPECT_EQ(2, copy.observedCount());
   EXPECT_EQ(2, one.observerCount());
   Watcher assigned;
   assigned.start(&three);
   assigned = watcher;
   EXPECT_EQ(0, three.observerCount()) << "stopped observing what it observed";
   EXPECT_EQ(3, one.observerCount());
   one.notifyAllObservers(static_cast<Why>(3));
   EXPECT_EQ("why3;", watcher.heard);
   EXPECT_EQ("why3;", copy.heard);
   EXPECT_EQ("why3;", assigned.heard);
}

TEST(DtObserverTest, TheNotifierForwardsOnlyWhileLinked)
{
   DtObservee observee;
   DtObserverNotifier unlinked;
   EXPECT_EQ(0, unlinked.notifyFromObserved(&observee, DtObservee::DtWhyApplication));
   Watcher watcher;
   DtObserverNotifier linked(&watcher);
   EXPECT_EQ(1, linked.notifyFromObserved(&observee, DtObservee::DtWhyApplication));
   EXPECT_EQ("why2;", watcher.heard);
}
