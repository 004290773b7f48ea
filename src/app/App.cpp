#include "app/App.h"

#include "app/Library.h"

namespace velko::app {

namespace {
const Folders& created(const Folders& f) {
  f.create();
  return f;
}
} // namespace

App::App(Options options, Folders folders)
    : options_(std::move(options)), folders_(created(folders)), catalog_(options_.catalog),
      library_(std::make_unique<Library>(options_, catalog_)) {}

App::~App() { library_->stop(); }

} // namespace velko::app
