#ifndef KESTAL_ULX_TERMINAL_H
#define KESTAL_ULX_TERMINAL_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

KESTAL_END_DECLS

#endif
