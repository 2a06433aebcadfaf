/* All 175 names must be there: those that library.cc does not define answer "not available". */
#include "security/at_symbols.h"

unsigned int not_offered(void);
unsigned int not_offered(void) { return 24598; }

#define NAME(index, name, kind) \
    unsigned int name(void) __attribute__((weak, alias("not_offered")));
MOLBAT_ENTRY_POINTS(NAME)
