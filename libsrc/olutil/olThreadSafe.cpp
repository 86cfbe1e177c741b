//===- olThreadSafe.cpp - The library's guarded-value instantiations -------===//
//
// The socket layers hand deques of these element types between the application
// thread and the I/O thread; they are compiled here once for every user.
//
//===----------------------------------------------------------------------===//
#include <olutil/olThreadSafe.h>

template class DtThreadSafe<std::deque<double>>;
template class DtThreadSafe<std::deque<std::pair<void*, std::vector<char>*>>>;
