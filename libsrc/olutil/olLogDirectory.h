// Library-internal: where the run's log files go, without making the folder.
#ifndef OLUTIL_OLLOGDIRECTORY_H
#define OLUTIL_OLLOGDIRECTORY_H

#include <olutil/olFilename.h>

namespace olfilename
{
// The folder DtGetQorLogDirectory answers with, from the same environment, but left
// as it is: code that runs when the library is loaded must not create folders.
DtFilename qorLogDirectoryPath();
}  // namespace olfilename

#endif  // OLUTIL_OLLOGDIRECTORY_H
