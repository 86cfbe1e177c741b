//===-- olutil/olTime.h - Simulation and real-time clocks -------*- C++ -*-===//
//
// Family: Concurrency.
//
// The library keeps two times apart: simulation time, which the application
// sets once per frame, and real time, which comes from the system. DtClock
// holds both, in double seconds. A process-wide clock made by DtTimeInit and a
// set of free functions serve older code. DtNetTimeStamp is the 32-bit DIS form
// of a time within the hour.
//
// Threads: a DtClock has no lock and belongs to the thread that runs the
// frame. The free functions share the global clock without a guard, and
// DtTimeInit must not race with itself: call it once at start-up.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLTIME_H
#define OLUTIL_OLTIME_H

#include <olutil/olUtil.h>

/// A simulation clock beside a real-time clock.
class DtClock
{
public:
   static constexpr double hour2sec = 3600.0;
   static constexpr double sec2hour = 1.0 / 3600.0;

   /// Clears every field and then runs init(): a new clock says its simulation
   /// time was never set.
   DtClock();
   DtClock(DtClock const&) = default;
   DtClock& operator=(DtClock const&) = default;
   virtual ~DtClock();

   /// Starts real time from now, sets simulation time to 0 and marks it unset.
   virtual void init();
   /// The simulation time as last set; never consults the system.
   virtual double simTime() const;
   /// Sets the simulation time and samples the approximate real time.
   virtual void setSimTime(double seconds);
   /// True once setSimTime was called; otherwise reports the user error on
   /// DtInfo and returns false.
   virtual bool isSimTimeSet() const;
   /// Real seconds since init(), with one system call.
   virtual double elapsedRealTime() const;
   /// The elapsed real time sampled at the last setSimTime(), with no system
   /// call: as fresh as the last frame.
   virtual double approximateElapsedRealTime() const;
   virtual bool useSimTimeForApproxRealTime() const;
   /// From now on setSimTime() takes the simulation time as the approximate
   /// real time.
   virtual void setUseSimTimeForApproxRealTime();
   virtual void clearUseSimTimeForApproxRealTime();
   /// Seconds since the epoch from gettimeofday. A failing gettimeofday is
   /// fatal.
   virtual double absRealTime() const;

protected:
   double myStartRealTime;
   double mySimTime;
   double myApproximateRealTime;
   bool mySimTimeSet;
   bool myUseSimTimeForApproxRealTime;
   bool myInitialised;
};

/// The global clock of older code, null until DtTimeInit() runs.
extern DtClock* DtObsoleteGlobalClock;

/// Creates the global clock unless it exists.
void DtTimeInit();
/// The global clock's simulation time; 0.0 before DtTimeInit().
double DtGetSimTime();
/// Sets the global clock's simulation time; does nothing before DtTimeInit().
void DtSetSimTime(double seconds);
/// The global clock's isSimTimeSet(), with its message; before DtTimeInit()
/// false, silently.
bool DtIsSimTimeSet();
/// The global clock's elapsed real time; 0.0 before DtTimeInit().
double DtGetElapsedRealTime();
/// The global clock's approximate elapsed real time; 0.0 before DtTimeInit().
double DtGetApproximateElapsedRealTime();
/// Seconds since the epoch, through a temporary clock; needs no DtTimeInit().
double DtAbsRealTime();

/// Bit 0 of a time stamp. Clear and Set are the bit's two states; DIS calls
/// them relative and absolute. Any value other than 1 clears the bit.
enum DtTimeStampType : int
{
   DtTimeStampClear = 0,
   DtTimeStampSet = 1,
   DtTimeStampRelative = DtTimeStampClear,
   DtTimeStampAbsolute = DtTimeStampSet
};

/// The DIS time stamp: in the stored byte order, bit 0 is the type and the
/// upper 31 bits are the fraction of the current hour.
class DtNetTimeStamp : public DtNetU32
{
public:
   /// Fractions of an hour in a whole hour, and its inverse.
   static double theHourFracPerHour;
   static double theHourPerHourFrac;

   DtNetTimeStamp() = default;
   DtNetTimeStamp(double seconds, DtTimeStampType type);
   /// Assignment of a raw host-order value, type bit included, as DtNetU32.
   using DtNetU32::operator=;

   /// Stores the part of `seconds` within its hour; the type bit is kept.
   void setTime(double seconds);
   /// Seconds within the hour, in [0, 3600).
   double time() const;
   void setType(DtTimeStampType type);
   DtTimeStampType type() const;

   /// True selects the DIS 5 scaling of 2^31 - 1 steps per hour; false returns
   /// to the default of 2^31.
   static void setTimeStampDis5Increments(bool on);
   static bool timeStampDis5Increments();
};

#endif  // OLUTIL_OLTIME_H
