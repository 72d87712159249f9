#include "config/product.hpp"

namespace rv {

x pathes;
std::string rvdb_ini;
std::optional<std::string> glbvVersion;

}  // namespace rv
