// Tests of the clocks, the global clock and the DIS time stamp.
#include <olutil/olTime.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <utility>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{
char const* const theUserErrorText =
    "User error: DtSetSimTime was never called.\n"
    "         You must call DtSetSimTime once per frame\n";

// A clock whose real time the test sets.
class ManualClock : public DtClock
{
public:
   ManualClock() { init(); }  // the base constructor's init() used the system time
   double absRealTime() const override { return now; }
   double now = 1000.0;
};
}  // namespace

TEST(Clock, SimTimeUnsetUntilSetAndOnlyTheQuestionPrints)
{
   olt::CapturePrinter capture(DtInfo);
   ManualClock clock;
   EXPECT_FALSE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());
   clock.setSimTime(0.0);
   EXPECT_TRUE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());
}

TEST(Clock, RealTimeCountsFromInitAndIsSampledBySetSimTime)
{
   ManualClock clock;
   clock.now = 1002.0;
   clock.setSimTime(50.0);
   clock.now = 1009.0;
   EXPECT_DOUBLE_EQ(2.0, clock.approximateElapsedRealTime()) << "sampled, not read";
   EXPECT_DOUBLE_EQ(9.0, clock.elapsedRealTime());
   clock.init();
   EXPECT_DOUBLE_EQ(0.0, clock.elapsedRealTime());

   // Sim time can stand in for the approximate real time, and a copy keeps that.
   clock.setUseSimTimeForApproxRealTime();
   clock.now = 1100.0;
   clock.setSimTime(12.25);
   DtClock copy(clock);
   EXPECT_TRUE(copy.useSimTimeForApproxRealTime() && copy.isSimTimeSet());
   EXPECT_EQ(12.25, copy.approximateElapsedRealTime());
   clock.clearUseSimTimeForApproxRealTime();
   clock.setSimTime(13.0);
   EXPECT_DOUBLE_EQ(91.0, clock.approximateElapsedRealTime());

   EXPECT_NEAR(static_cast<double>(std::time(nullptr)), DtAbsRealTime(), 1.5);
}

TEST(GlobalClock, FunctionsAnswerQuietlyBeforeTimeInitThenUseTheOneClock)
{
   DtClock* const saved = std::exchange(DtObsoleteGlobalClock, nullptr);
   olt::CapturePrinter capture(DtInfo);
   DtSetSimTime(5.0);
   EXPECT_EQ(0.0, DtGetSimTime() + DtGetElapsedRealTime() + DtGetApproximateElapsedRealTime());
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ("", capture.text());

   DtTimeInit();
   DtClock* const clock = DtObsoleteGlobalClock;
   DtTimeInit();
   EXPECT_TRUE(clock != nullptr && clock == DtObsoleteGlobalClock) << "made once";
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());
   DtSetSimTime(42.5);
   EXPECT_TRUE(DtIsSimTimeSet() && DtGetSimTime() == 42.5);
   delete std::exchange(DtObsoleteGlobalClock, saved);
}

TEST(TimeStamp, KeepsOnlyTheTimeWithinTheHour)
{
   // Not-finite times count as the hour's start.
   std::pair<double, double> const cases[] = {
       {3599.999, 3599.999}, {3600.5, 0.5}, {1.7e9, 800.0}, {-0.5, 3599.5}, {std::nan(""), 0.0}};
   for (bool dis5 : {true, false})  // ends in the default mode
   {
      DtNetTimeStamp::setTimeStampDis5Increments(dis5);
      EXPECT_EQ(dis5 ? 2147483647.0 : 2147483648.0, DtNetTimeStamp::theHourFracPerHour);
      EXPECT_EQ(dis5, DtNetTimeStamp::timeStampDis5Increments());
      EXPECT_EQ(dis5 ? 4.656612875245797e-10 : 4.656612873077393e-10,
                DtNetTimeStamp::theHourPerHourFrac);
      for (auto const& [seconds, expected] : cases)
      {
         DtNetTimeStamp stamp(seconds, DtTimeStampSet);
         EXPECT_NEAR(expected, stamp.time(), 1e-5) << dis5 << " " << seconds;
         stamp.setTime(seconds + 1.0);
         EXPECT_EQ(DtTimeStampSet, stamp.type()) << "setTime keeps the type bit";
      }
   }
}

TEST(TimeStamp, ValueIsTheHourFractionShiftedLeftByOneInNetworkOrder)
{
   DtNetworkByteOrderType const saved = DtNetworkByteOrdering();
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   DtNetTimeStamp stamp(1800.0, DtTimeStampSet);
   unsigned char bytes[4];
   static_assert(sizeof(DtNetTimeStamp) == sizeof(bytes));
   std::memcpy(bytes, &stamp, sizeof(bytes));
   DtSetNetworkByteOrdering(saved);
   EXPECT_EQ(0, std::memcmp("\x80\0\0\1", bytes, 4));

   // 0.5 * (2^31 - 1) truncates to 2^30 - 1; only the type value 1 sets bit 0.
   DtNetTimeStamp::setTimeStampDis5Increments(true);
   DtNetTimeStamp half(1800.0, DtTimeStampSet);
   EXPECT_EQ((1073741823u << 1) | 1u, static_cast<unsigned int>(half));
   EXPECT_DOUBLE_EQ(3600.0 * 1073741823.0 / 2147483647.0, half.time()) << "read at the same scale";
   half.setType(static_cast<DtTimeStampType>(5));
   EXPECT_EQ(1073741823u << 1, static_cast<unsigned int>(half));
   DtNetTimeStamp::setTimeStampDis5Increments(false);
}
