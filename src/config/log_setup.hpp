// Sets the trace and the protocol up from the product configuration: the
// trace file and level (rv.ini [PATHES] gv_rw_lgc and gv_rw_ini, the debug
// settings file), the message language (rv.ini [SETUP] lang), and where the
// protocol file is (the global variable gv_prot).
#pragma once

#include <string_view>

namespace rv {

// Installs what the lower layers ask the product for: the protocol file
// (from the global variable gv_prot) and the environment of every child
// (i_setenv_ravik). Idempotent.
void install_product_services();

// Sets up `strLog`: trace file <gv_rw_lgc><cpKeyFile>, level from the line
// "<cpKeyDebug>=N" of <gv_rw_ini>debug.ini, echo from "STDERR=N", and the
// message language from [SETUP] lang; installs the product services first.
// Missing settings are reported (protocol file and standard error) and leave
// tracing off.
void v_set_log_main(std::string_view cpKeyFile, std::string_view cpKeyDebug);

// Returns the trace level the debug settings file gives for `cpInput`
// (upper-cased), or 0.
int log_check(std::string_view cpInput);

}  // namespace rv
