#include "app/FeaturePrint.h"

#include <stdexcept>

namespace velko::app {

// Placeholder until similarity search lands.
std::string featurePrintOfFile(const std::string& path) {
  throw std::runtime_error("no feature print for " + path);
}
std::string featurePrintOfBytes(std::string_view) { throw std::runtime_error("no feature print"); }
double printDistance(std::string_view, std::string_view) { return 0; }

} // namespace velko::app
