// Tests of the clocks, the global clock and the DIS time stamp.
#include <olutil/olTime.h>

#include <olutil/olPrint.h>

#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace
{
char const* const theUserErrorText =
    "User error: DtSetSimTime was never called.\n"
    "         You must call DtSetSimTime once per frame\n";

// Gathers what a stream prints, for the length of one test.
class CapturePrinter : public DtPrinter
{
public:
   explicit CapturePrinter(DtOutputStream& stream) : myStream(stream)
   {
      myStream.detachPrinter(&DtStandardOutConsole);
      myStream.attachPrinter(this);
   }
   ~CapturePrinter() override
   {
      myStream.detachPrinter(this);
      myStream.attachPrinter(&DtStandardOutConsole);
   }
   void write(std::string const& text, int, bool) override { myText += text; }
   std::string const& text() const { return myText; }

private:
   DtOutputStream& myStream;
   std::string myText;
};

// A clock whose real time is set by the test, with its fields in view.
class ManualClock : public DtClock
{
public:
   ManualClock()
   {
      // The base constructor ran init() with the system's time; start again
      // from the manual one.
      init();
   }
   double absRealTime() const override { return now; }

   double startRealTime() const { return myStartRealTime; }
   double approximateRealTimeField() const { return myApproximateRealTime; }
   bool simTimeSetField() const { return mySimTimeSet; }
   bool initialised() const { return myInitialised; }

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

private:
   DtClock* mySaved = nullptr;
};

// Restores the default time-stamp scaling after each test.
class TimeStamp : public ::testing::Test
{
protected:
   void TearDown() override { DtNetTimeStamp::setTimeStampDis5Increments(false); }
};
}  // namespace

// ---------------------------------------------------------------- DtClock

TEST(Clock, NewClockHasSimTimeZeroAndNotSet)
{
   CapturePrinter capture(DtInfo);
   ManualClock clock;
   EXPECT_TRUE(clock.initialised());
   EXPECT_FALSE(clock.simTimeSetField());
   EXPECT_EQ(0.0, clock.simTime());
   EXPECT_EQ(1000.0, clock.startRealTime());
   EXPECT_EQ(0.0, clock.approximateElapsedRealTime());
   EXPECT_EQ("", capture.text()) << "construction prints nothing";
}

TEST(Clock, IsSimTimeSetReportsTheUserErrorUntilSet)
{
   CapturePrinter capture(DtInfo);
   DtClock clock;
   EXPECT_FALSE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());

   clock.setSimTime(0.0);
   EXPECT_TRUE(clock.isSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text()) << "nothing more is printed once set";
}

TEST(Clock, UserErrorFollowsTheNotificationLevel)
{
   CapturePrinter capture(DtInfo);
   int const saved = DtNotifyLevel;
   DtNotifyLevel = 1;
   DtClock clock;
   EXPECT_FALSE(clock.isSimTimeSet());
   DtNotifyLevel = saved;
   EXPECT_EQ("", capture.text());
}

TEST(Clock, ElapsedRealTimeCountsFromInit)
{
   ManualClock clock;
   clock.now = 1012.5;
   EXPECT_DOUBLE_EQ(12.5, clock.elapsedRealTime());
   clock.init();
   EXPECT_DOUBLE_EQ(0.0, clock.elapsedRealTime());
   EXPECT_FALSE(clock.simTimeSetField()) << "init clears the set flag again";
}

TEST(Clock, ApproximateRealTimeIsSampledBySetSimTimeOnly)
{
   ManualClock clock;
   clock.now = 1002.0;
   clock.setSimTime(50.0);
   EXPECT_DOUBLE_EQ(2.0, clock.approximateElapsedRealTime());
   clock.now = 1009.0;
   EXPECT_DOUBLE_EQ(2.0, clock.approximateElapsedRealTime()) << "no system call between frames";
   EXPECT_DOUBLE_EQ(9.0, clock.elapsedRealTime());
   clock.setSimTime(51.0);
   EXPECT_DOUBLE_EQ(9.0, clock.approximateElapsedRealTime());
   EXPECT_DOUBLE_EQ(51.0, clock.simTime());
}

TEST(Clock, SimTimeCanStandInForApproximateRealTime)
{
   ManualClock clock;
   EXPECT_FALSE(clock.useSimTimeForApproxRealTime());
   clock.setUseSimTimeForApproxRealTime();
   EXPECT_TRUE(clock.useSimTimeForApproxRealTime());
   clock.now = 1100.0;
   clock.setSimTime(12.25);
   EXPECT_EQ(12.25, clock.approximateElapsedRealTime());

   clock.clearUseSimTimeForApproxRealTime();
   EXPECT_FALSE(clock.useSimTimeForApproxRealTime());
   clock.setSimTime(13.0);
   EXPECT_DOUBLE_EQ(100.0, clock.approximateElapsedRealTime());
}

TEST(Clock, CopyAndAssignmentTakeAllFields)
{
   ManualClock source;
   source.setUseSimTimeForApproxRealTime();
   source.setSimTime(7.0);

   DtClock copy(source);
   EXPECT_EQ(7.0, copy.simTime());
   EXPECT_TRUE(copy.useSimTimeForApproxRealTime());
   EXPECT_EQ(7.0, copy.approximateElapsedRealTime());
   EXPECT_TRUE(copy.isSimTimeSet());

   DtClock assigned;
   assigned = source;
   EXPECT_EQ(7.0, assigned.simTime());
   EXPECT_TRUE(assigned.isSimTimeSet());
}

TEST(Clock, AbsRealTimeIsSecondsSinceTheEpoch)
{
   std::time_t const before = std::time(nullptr);
   double const clockTime = DtClock().absRealTime();
   double const freeTime = DtAbsRealTime();
   std::time_t const after = std::time(nullptr);
   // Whole seconds from time() bracket the clock's reading.
   EXPECT_GE(clockTime, static_cast<double>(before));
   EXPECT_LT(clockTime, static_cast<double>(after) + 1.0);
   EXPECT_GE(freeTime, clockTime);
   EXPECT_LT(freeTime, static_cast<double>(after) + 1.0);
}

TEST(Clock, HourConstants)
{
   EXPECT_EQ(3600.0, DtClock::hour2sec);
   EXPECT_DOUBLE_EQ(1.0, DtClock::hour2sec * DtClock::sec2hour);
}

// ---------------------------------------------------------------- global clock

TEST_F(NoGlobalClock, FunctionsAnswerQuietlyBeforeTimeInit)
{
   CapturePrinter capture(DtInfo);
   EXPECT_EQ(0.0, DtGetSimTime());
   DtSetSimTime(5.0);
   EXPECT_EQ(0.0, DtGetSimTime());
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ(0.0, DtGetElapsedRealTime());
   EXPECT_EQ(0.0, DtGetApproximateElapsedRealTime());
   EXPECT_GT(DtAbsRealTime(), 0.0) << "needs no global clock";
   EXPECT_EQ(nullptr, DtObsoleteGlobalClock);
   EXPECT_EQ("", capture.text());
}

TEST_F(NoGlobalClock, TimeInitMakesOneClock)
{
   DtTimeInit();
   DtClock* const clock = DtObsoleteGlobalClock;
   ASSERT_NE(nullptr, clock);
   DtTimeInit();
   EXPECT_EQ(clock, DtObsoleteGlobalClock) << "a second call keeps the clock";
}

TEST_F(NoGlobalClock, FunctionsUseTheClockAfterTimeInit)
{
   DtTimeInit();
   CapturePrinter capture(DtInfo);
   EXPECT_FALSE(DtIsSimTimeSet());
   EXPECT_EQ(theUserErrorText, capture.text());

   DtSetSimTime(0.0);
   EXPECT_TRUE(DtIsSimTimeSet());
   DtSetSimTime(42.5);
   EXPECT_EQ(42.5, DtGetSimTime());
   EXPECT_GE(DtGetElapsedRealTime(), DtGetApproximateElapsedRealTime());

   DtObsoleteGlobalClock->setUseSimTimeForApproxRealTime();
   DtSetSimTime(43.0);
   EXPECT_EQ(43.0, DtGetApproximateElapsedRealTime());
   EXPECT_EQ(theUserErrorText, capture.text());
}

// ---------------------------------------------------------------- DtNetTimeStamp

TEST_F(TimeStamp, ScalingModes)
{
   EXPECT_EQ(2147483648.0, DtNetTimeStamp::theHourFracPerHour);
   EXPECT_EQ(4.656612873077393e-10, DtNetTimeStamp::theHourPerHourFrac);
   EXPECT_FALSE(DtNetTimeStamp::timeStampDis5Increments());

   DtNetTimeStamp::setTimeStampDis5Increments(true);
   EXPECT_EQ(2147483647.0, DtNetTimeStamp::theHourFracPerHour);
   EXPECT_EQ(4.656612875245797e-10, DtNetTimeStamp::theHourPerHourFrac);
   EXPECT_TRUE(DtNetTimeStamp::timeStampDis5Increments());

   DtNetTimeStamp::setTimeStampDis5Increments(false);
   EXPECT_EQ(2147483648.0, DtNetTimeStamp::theHourFracPerHour);
   EXPECT_EQ(4.656612873077393e-10, DtNetTimeStamp::theHourPerHourFrac);
}

TEST_F(TimeStamp, RoundTripsWithinTheHour)
{
   struct Case
   {
      double seconds;
      double expected;
   };
   // One step of the stamp is 3600 / 2^31 seconds, about 1.7 microseconds.
   Case const cases[] = {
       {0.0, 0.0},
       {0.5, 0.5},
       {1800.0, 1800.0},
       {3599.999, 3599.999},
       {3600.0, 0.0},
       {3600.5, 0.5},
       {7210.0, 10.0},
       {86400.0 + 12.75, 12.75},
       {1.7e9, std::fmod(1.7e9, 3600.0)},
       {-0.5, 3599.5},
       {-3600.0, 0.0},
   };
   for (bool dis5 : {false, true})
   {
      DtNetTimeStamp::setTimeStampDis5Increments(dis5);
      for (Case const& c : cases)
      {
         SCOPED_TRACE(::testing::Message() << "dis5 " << dis5 << ", seconds " << c.seconds);
         DtNetTimeStamp stamp(c.seconds, DtTimeStampClear);
         EXPECT_NEAR(c.expected, stamp.time(), 1e-5);
         EXPECT_GE(stamp.time(), 0.0);
         EXPECT_LT(stamp.time(), 3600.0);
      }
   }
}

TEST_F(TimeStamp, ValueIsTheHourFractionShiftedLeftByOne)
{
   DtNetTimeStamp half(1800.0, DtTimeStampClear);
   EXPECT_EQ(0x80000000u, static_cast<unsigned int>(half));

   DtNetTimeStamp::setTimeStampDis5Increments(true);
   DtNetTimeStamp halfDis5(1800.0, DtTimeStampSet);
   // 0.5 * (2^31 - 1) truncates to 2^30 - 1.
   EXPECT_EQ((1073741823u << 1) | 1u, static_cast<unsigned int>(halfDis5));
}

TEST_F(TimeStamp, IsStoredInNetworkOrder)
{
   DtNetworkByteOrderType const saved = DtNetworkByteOrdering();
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   DtNetTimeStamp stamp(1800.0, DtTimeStampSet);
   std::array<unsigned char, 4> bytes;
   std::memcpy(bytes.data(), &stamp, sizeof(bytes));
   DtSetNetworkByteOrdering(saved);
   EXPECT_EQ(4u, sizeof(DtNetTimeStamp));
   EXPECT_EQ((std::array<unsigned char, 4>{0x80, 0, 0, 1}), bytes);
}

TEST_F(TimeStamp, TypeBit)
{
   DtNetTimeStamp stamp(100.0, DtTimeStampSet);
   EXPECT_EQ(DtTimeStampSet, stamp.type());
   EXPECT_EQ(1u, static_cast<unsigned int>(stamp) & 1u);

   stamp.setTime(200.0);
   EXPECT_EQ(DtTimeStampSet, stamp.type()) << "setTime keeps the type bit";
   EXPECT_NEAR(200.0, stamp.time(), 1e-5);

   stamp.setType(DtTimeStampClear);
   EXPECT_EQ(DtTimeStampClear, stamp.type());
   EXPECT_NEAR(200.0, stamp.time(), 1e-5) << "setType keeps the time";

   stamp.setTime(300.0);
   EXPECT_EQ(DtTimeStampClear, stamp.type());

   stamp.setType(static_cast<DtTimeStampType>(5));
   EXPECT_EQ(DtTimeStampClear, stamp.type()) << "only 1 sets the bit";
   EXPECT_EQ(DtTimeStampAbsolute, DtTimeStampSet);
   EXPECT_EQ(DtTimeStampRelative, DtTimeStampClear);
}

TEST_F(TimeStamp, NonFiniteTimesCountAsTheHoursStart)
{
   DtNetTimeStamp stamp(std::numeric_limits<double>::quiet_NaN(), DtTimeStampSet);
   EXPECT_EQ(0.0, stamp.time());
   EXPECT_EQ(DtTimeStampSet, stamp.type());
   stamp.setTime(std::numeric_limits<double>::infinity());
   EXPECT_EQ(0.0, stamp.time());
}

TEST_F(TimeStamp, DefaultIsZeroAndRawAssignmentWorks)
{
   DtNetTimeStamp stamp;
   EXPECT_EQ(0u, static_cast<unsigned int>(stamp));
   stamp = 0x80000001u;
   EXPECT_EQ(DtTimeStampSet, stamp.type());
   EXPECT_NEAR(1800.0, stamp.time(), 1e-9);
}
