// Everything a method handler works with: the options, the folders, the catalogue and the
// library scanner. One App lives for the whole process.
#pragma once

#include "app/Catalog.h"
#include "app/Options.h"

#include <memory>

namespace velko::app {

class Library;

class App {
public:
  /// Creates the folders, opens the catalogue and prepares the scanner (not started).
  App(Options options, Folders folders);
  ~App();

  const Options& options() const { return options_; }
  const Folders& folders() const { return folders_; }
  Catalog& catalog() { return catalog_; }
  Library& library() { return *library_; }

private:
  Options options_;
  Folders folders_;
  Catalog catalog_;
  std::unique_ptr<Library> library_;
};

} // namespace velko::app
