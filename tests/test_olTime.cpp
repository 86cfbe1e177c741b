// Tests of the clocks, the global clock and the DIS time stamp.
#include <olutil/olTime.h>

#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{
char const* const theUserErrorText =
    "User error: DtSetSimTime was never called.\n"
    "         You must call DtSetSimTime once per frame\n";

using olt::CapturePrinter;

// A clock whose real time is set by the test, with its fields in view.
class ManualClock : public DtClock
{
public:
   // The base constructor ran init() with the system's time: start from the manual one.
   ManualClock() { init(); }
   double absRealTime() const override { return now; }
   bool simTimeSetField() const { return mySimTimeSet; }

   double now = 1000.0;
};

// Runs a test with no global clock, and puts back whatever clock was there.
class NoGlobalClock : public ::testing::Test
{
protected:
   void SetUp() override
   {
      mySaved = DtObsoleteGlobalClock;
      DtObsoleteGlobalClock = nullptr;
   }
   void TearDown() override
   {
      delete DtObsoleteGlobalClock;
      DtObsoleteGlobalClock = mySaved;
   }
   DtClock* mySaved = nullptr;
};

// Restores the default time-stamp scaling after each test.
class TimeStamp : public ::testing::Test
{
protected:
   void TearDown() override { DtNetTimeStamp::setTimeStampDis5Increments(false); }
};
}  // namespace

TEST(Clock, SimTimeIsNotSetUntilSetAndOnlyTheQuestionPrints)
{
   CapturePrinter capture(DtInfo);
   ManualClock clock;
   EXPECT_TRUE(!clock.simTimeSetField() && clock.simTime() == 0.0);
   EXPECT_EQ("", capture.text()) << "construction prints nothing";
   EXPECT_FALSE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());
   clock.setSimTime(0.0);
   EXPECT_TRUE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text()) << "nothing more is printed once set";
}

TEST(Clock, RealTimeCountsFromInitAndIsSampledBySetSimTime)
{
   ManualClock clock;
   clock.now = 1002.0;
   clock.setSimTime(50.0);
   clock.now = 1009.0;
   EXPECT_DOUBLE_EQ(2.0, clock.approximateElapsedRealTime()) << "no system call between frames";
   EXPECT_DOUBLE_EQ(9.0, clock.elapsedRealTime());
   clock.setSimTime(51.0);
   EXPECT_DOUBLE_EQ(9.0, clock.approximateElapsedRealTime());
   clock.init();
   EXPECT_DOUBLE_EQ(0.0, clock.elapsedRealTime());
   EXPECT_FALSE(clock.simTimeSetField()) << "init clears the set flag again";

   // Sim time can stand in for the approximate real time, and a copy keeps that.
   clock.setUseSimTimeForApproxRealTime();
   clock.now = 1100.0;
   clock.setSimTime(12.25);
   EXPECT_EQ(12.25, clock.approximateElapsedRealTime());
   DtClock copy(clock);
   EXPECT_TRUE(copy.useSimTimeForApproxRealTime() && copy.isSimTimeSet());
   EXPECT_EQ(12.25, copy.approximateElapsedRealTime());
   clock.clearUseSimTimeForApproxRealTime();
   clock.setSimTime(13.0);
   EXPECT_DOUBLE_EQ(91.0, clock.approximateElapsedRealTime());

   // Whole seconds from time() bracket the system clock's reading.
   std::time_t const before = std::time(nullptr);
   double const now = DtAbsRealTime();
   EXPECT_TRUE(now >= before && now < std::time(nullptr) + 1.0) << now;
}

TEST_F(NoGlobalClock, FunctionsAnswerQuietlyBeforeTimeInitThenUseTheOneClock)
{
   CapturePrinter capture(DtInfo);
   DtSetSimTime(5.0);
   EXPECT_EQ(0.0, DtGetSimTime() + DtGetElapsedRealTime() + DtGetApproximateElapsedRealTime());
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ(nullptr, DtObsoleteGlobalClock);
   EXPECT_EQ("", capture.text());

   DtTimeInit();
   DtClock* const clock = DtObsoleteGlobalClock;
   ASSERT_NE(nullptr, clock);
   DtTimeInit();
   EXPECT_EQ(clock, DtObsoleteGlobalClock) << "a second call keeps the clock";
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());
   DtSetSimTime(42.5);
   EXPECT_TRUE(DtIsSimTimeSet());
   EXPECT_EQ(42.5, DtGetSimTime());
   EXPECT_GE(DtGetElapsedRealTime(), DtGetApproximateElapsedRealTime());
}

// ---------------------------------------------------------------- DtNetTimeStamp

TEST_F(TimeStamp, ScalesAndRoundTripsWithinTheHour)
{
   double const nan = std::numeric_limits<double>::quiet_NaN();
   double const inf = std::numeric_limits<double>::infinity();
   // One step of the stamp is 3600 / 2^31 seconds, about 1.7 microseconds.
   // Times that are not finite count as the hour's start.
   std::pair<double, double> const cases[] = {
       {0.0, 0.0},     {3599.999, 3599.999}, {3600.0, 0.0},
       {3600.5, 0.5},  {7210.0, 10.0},       {1.7e9, std::fmod(1.7e9, 3600.0)},
       {-0.5, 3599.5}, {nan, 0.0},           {inf, 0.0}};
   for (bool dis5 : {true, false})
   {
      // Hour fractions per hour and its inverse: 2^31 normally, 2^31 - 1 in DIS 5 mode.
      DtNetTimeStamp::setTimeStampDis5Increments(dis5);
      EXPECT_EQ(dis5, DtNetTimeStamp::timeStampDis5Increments());
      EXPECT_EQ(dis5 ? 2147483647.0 : 2147483648.0, DtNetTimeStamp::theHourFracPerHour);
      EXPECT_EQ(dis5 ? 4.656612875245797e-10 : 4.656612873077393e-10,
                DtNetTimeStamp::theHourPerHourFrac);
      for (auto const& [seconds, expected] : cases)
      {
         SCOPED_TRACE(::testing::Message() << "dis5 " << dis5 << ", seconds " << seconds);
         DtNetTimeStamp stamp(seconds, DtTimeStampSet);
         EXPECT_NEAR(expected, stamp.time(), 1e-5);
         EXPECT_TRUE(expected == 0.0 ? stamp.time() == 0.0
                                     : stamp.time() > 0.0 && stamp.time() < 3600.0)
             << stamp.time();
         EXPECT_EQ(DtTimeStampSet, stamp.type());
         stamp.setTime(seconds + 1.0);
         EXPECT_EQ(DtTimeStampSet, stamp.type()) << "setTime keeps the type bit";
      }
   }
}

TEST_F(TimeStamp, ValueIsTheHourFractionShiftedLeftByOneInNetworkOrder)
{
   DtNetworkByteOrderType const saved = DtNetworkByteOrdering();
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   DtNetTimeStamp stamp(1800.0, DtTimeStampSet);
   std::array<unsigned char, 4> bytes;
   std::memcpy(bytes.data(), &stamp, sizeof(bytes));
   DtSetNetworkByteOrdering(saved);
   EXPECT_EQ(4u, sizeof(DtNetTimeStamp));
   EXPECT_EQ((std::array<unsigned char, 4>{0x80, 0, 0, 1}), bytes);

   DtNetTimeStamp::setTimeStampDis5Increments(true);
   DtNetTimeStamp halfDis5(1800.0, DtTimeStampSet);
   // 0.5 * (2^31 - 1) truncates to 2^30 - 1.
   EXPECT_EQ((1073741823u << 1) | 1u, static_cast<unsigned int>(halfDis5));

   // setType keeps the time, and only the value 1 sets the bit.
   halfDis5.setType(DtTimeStampClear);
   EXPECT_EQ(DtTimeStampClear, halfDis5.type());
   EXPECT_EQ(1073741823u << 1, static_cast<unsigned int>(halfDis5));
   halfDis5.setType(DtTimeStampSet);
   halfDis5.setType(static_cast<DtTimeStampType>(5));
   EXPECT_EQ(1073741823u << 1, static_cast<unsigned int>(halfDis5));
}
