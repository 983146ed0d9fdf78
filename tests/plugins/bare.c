/* A library that is no plugin: it has one name, and no entry points. */
#include <kestal_ulx/base.h>

KESTAL_API int bare_answer(void);

int bare_answer(void)
{
    return 42;
}
