// Simulation and real-time clocks, and the DIS time stamp.
#include <olutil/olTime.h>

#include <olutil/olPrint.h>

#include <cmath>
#include <cstdint>
#include <sys/time.h>

namespace
{
// clang-format off
char const* const theSimTimeNeverSetText = "User error: DtSetSimTime was never called.\n         You must call DtSetSimTime once per frame\n";
// clang-format on

double const theDefaultHourFracPerHour = 2147483648.0;  // 2^31 steps per hour
double const theDis5HourFracPerHour = 2147483647.0;     // 2^31 - 1 steps per hour
}  // namespace

// ---------------------------------------------------------------- DtClock

DtClock::DtClock()
    : myStartRealTime(0.0),
      mySimTime(0.0),
      myApproximateRealTime(0.0),
      mySimTimeSet(false),
      myUseSimTimeForApproxRealTime(false),
      myInitialised(false)
{
   init();
}

DtClock::~DtClock() = default;

void DtClock::init()
{
   myStartRealTime = absRealTime();
   setSimTime(0.0);
   mySimTimeSet = false;
   myInitialised = true;
}

double DtClock::simTime() const
{
   return mySimTime;
}

void DtClock::setSimTime(double seconds)
{
   mySimTimeSet = true;
   mySimTime = seconds;
   myApproximateRealTime = myUseSimTimeForApproxRealTime ? mySimTime : elapsedRealTime();
}

bool DtClock::isSimTimeSet() const
{
   if (mySimTimeSet)
   {
      return true;
   }
   DtInfo << theSimTimeNeverSetText;
   return false;
}

double DtClock::elapsedRealTime() const
{
   return absRealTime() - myStartRealTime;
}

double DtClock::approximateElapsedRealTime() const
{
   return myApproximateRealTime;
}

bool DtClock::useSimTimeForApproxRealTime() const
{
   return myUseSimTimeForApproxRealTime;
}

void DtClock::setUseSimTimeForApproxRealTime()
{
   myUseSimTimeForApproxRealTime = true;
}

void DtClock::clearUseSimTimeForApproxRealTime()
{
   myUseSimTimeForApproxRealTime = false;
}

double DtClock::absRealTime() const
{
   struct timeval now;
   if (gettimeofday(&now, nullptr) != 0)
   {
      DtFatalPerror("Can't gettimeofday");
      return 0.0;  // reached only when the application's abort function returns
   }
   return static_cast<double>(now.tv_sec) + 1e-6 * static_cast<double>(now.tv_usec);
}

// ---------------------------------------------------------------- global clock

DtClock* DtObsoleteGlobalClock = nullptr;

void DtTimeInit()
{
   if (!DtObsoleteGlobalClock)
   {
      DtObsoleteGlobalClock = new DtClock();
   }
}

double DtGetSimTime()
{
   return DtObsoleteGlobalClock ? DtObsoleteGlobalClock->simTime() : 0.0;
}

void DtSetSimTime(double seconds)
{
   if (DtObsoleteGlobalClock)
   {
      DtObsoleteGlobalClock->setSimTime(seconds);
   }
}

bool DtIsSimTimeSet()
{
   return DtObsoleteGlobalClock ? DtObsoleteGlobalClock->isSimTimeSet() : false;
}

double DtGetElapsedRealTime()
{
   return DtObsoleteGlobalClock ? DtObsoleteGlobalClock->elapsedRealTime() : 0.0;
}

double DtGetApproximateElapsedRealTime()
{
   return DtObsoleteGlobalClock ? DtObsoleteGlobalClock->approximateElapsedRealTime() : 0.0;
}

double DtAbsRealTime()
{
   DtClock clock;
   return clock.absRealTime();
}

// ---------------------------------------------------------------- DtNetTimeStamp

double DtNetTimeStamp::theHourFracPerHour = theDefaultHourFracPerHour;
double DtNetTimeStamp::theHourPerHourFrac = 1.0 / theDefaultHourFracPerHour;

DtNetTimeStamp::DtNetTimeStamp(double seconds, DtTimeStampType type)
{
   setTime(seconds);
   setType(type);
}

void DtNetTimeStamp::setTime(double seconds)
{
   unsigned int const typeBit = static_cast<unsigned int>(*this) & 1U;

   double const hours = DtClock::sec2hour * seconds;
   double fraction = hours - std::trunc(hours);
   // A time before the epoch of the hour lands in the same place within the
   // hour as the time one hour later; anything not finite counts as the hour's
   // start. Both keep the conversion below within the range of an integer.
   if (!std::isfinite(fraction))
   {
      fraction = 0.0;
   }
   else if (fraction < 0.0)
   {
      fraction += 1.0;
   }

   // The fraction may round up to a whole hour; the shift then carries out of
   // the 32 bits and the stamp wraps to the hour's start, as the clock does.
   std::uint64_t const steps = static_cast<std::uint64_t>(theHourFracPerHour * fraction);
   unsigned int const value = static_cast<unsigned int>((steps << 1) & 0xffffffffU);
   DtNetU32::operator=(value | typeBit);
}

double DtNetTimeStamp::time() const
{
   unsigned int const value = static_cast<unsigned int>(*this);
   return DtClock::hour2sec * theHourPerHourFrac * static_cast<double>(value >> 1);
}

void DtNetTimeStamp::setType(DtTimeStampType type)
{
   unsigned int value = static_cast<unsigned int>(*this);
   if (type == DtTimeStampSet)
   {
      value |= 1U;
   }
   else
   {
      value &= ~1U;
   }
   DtNetU32::operator=(value);
}

DtTimeStampType DtNetTimeStamp::type() const
{
   return (static_cast<unsigned int>(*this) & 1U) ? DtTimeStampSet : DtTimeStampClear;
}

void DtNetTimeStamp::setTimeStampDis5Increments(bool on)
{
   double const perHour = on ? theDis5HourFracPerHour : theDefaultHourFracPerHour;
   theHourFracPerHour = perHour;
   theHourPerHourFrac = 1.0 / perHour;
}

bool DtNetTimeStamp::timeStampDis5Increments()
{
   return theHourFracPerHour == theDis5HourFracPerHour;
}
