// Sets a data directory up when the daemon starts for the first time.
#pragma once

#include <cstdint>
#include <string>

namespace provider {

// Makes DATA_DIR/dovmad-at with a fresh key pair, a self-signed certificate, the domains and the
// administrator `root`, unless a directory of that name exists. The directory appears complete or
// not at all, and only once however many processes start at the same time. The administrator's
// password is printed on standard error this one time; when that leads to /dev/null it is left in
// dovmad-at/initial-password instead. Returns an at_result; failures are explained on standard
// error.
[[nodiscard]] std::uint32_t set_up_on_first_use(const std::string& data_dir);

}  // namespace provider
