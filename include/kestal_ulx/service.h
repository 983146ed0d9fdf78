#ifndef KESTAL_ULX_SERVICE_H
#define KESTAL_ULX_SERVICE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

KESTAL_END_DECLS

#endif
