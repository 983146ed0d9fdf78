#ifndef KESTAL_ULX_SEED_H
#define KESTAL_ULX_SEED_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

KESTAL_END_DECLS

#endif
