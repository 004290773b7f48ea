#include "app/Library.h"

#include <stdexcept>

namespace velko::app {

// Placeholder until the scanner lands.
std::optional<std::string> formatOfName(const std::string&) { return std::nullopt; }
MediaFacts readMedia(const std::string& path) { throw std::runtime_error("cannot read " + path); }
Library::Library(const Options& options, Catalog& catalog) : options_(options), catalog_(catalog) {}
Library::~Library() { stop(); }
void Library::start() {}
void Library::stop() {}
ScanReport Library::scan() { return {}; }
bool Library::readable() const { return true; }
std::string Library::addFile(const std::string& path) { throw std::runtime_error("cannot add " + path); }
std::int64_t Library::makePrints(std::int64_t) { return 0; }

} // namespace velko::app
