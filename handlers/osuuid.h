// The host's identity: a GUID that the installation left in a file.
#pragma once

// The braced GUID of 38 characters, or null when no file holds one. Read once and remembered; the
// text stays valid until forget_osuuid.
const char* get_osuuid();

// Makes the next get_osuuid read the file again.
void forget_osuuid();
