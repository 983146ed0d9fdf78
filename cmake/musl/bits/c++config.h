// libstdc++'s headers are set up for glibc: what they may not take for granted over musl.
#define __GLIBC_PREREQ(major, minor) 0
#define __locale_t locale_t
#include_next <bits/c++config.h>
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK
