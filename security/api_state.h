// What the sources of the shim share: the once-initialisation.
#pragma once

// Runs molbatOnceInit once per process.
void run_once_init();
