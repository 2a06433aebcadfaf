// The entry points that the library does not offer, all with one answer. They must be there: the
// daemon gives a library up at the first name that it lacks. C, where a name that another file
// declares with other arguments is no conflict.
#include "security/at_symbols.h"

unsigned int not_offered(void);
unsigned int not_offered(void) {
    return 24598;  // at_not_available
}

#define NOT_OFFERED_at_words(name) \
    unsigned int name(void) __attribute__((alias("not_offered"), visibility("default")));
#define NOT_OFFERED_at_typed(name)
#define NOT_OFFERED_at_framework(name)
#define NOT_OFFERED(index, name, kind) NOT_OFFERED_##kind(name)

MOLBAT_ENTRY_POINTS(NOT_OFFERED)
