#include "provider/tool.h"
int command_grant(const tool_options&, const tool_arguments&) {
    return fail("not yet");
}
int command_deny(const tool_options&, const tool_arguments&) {
    return fail("not yet");
}
int command_rights(const tool_options&, const tool_arguments&) {
    return fail("not yet");
}
