#include "app/Options.h"

#include "protocol/IPCEndpoint.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace velko::app {

const char* const kVersion = "0.1.0";

const char* const kUsage =
    "usage: velko-headless --library DIR [--catalog FILE] [--luts DIR] [--allow-saving] "
    "[--allow-delete]\n"
    "       velko-headless --version | --help\n"
    "\n"
    "Serves the velko IPC protocol on ~/.velko/ipc.sock over a folder of photos and videos.\n"
    "\n"
    "  --library DIR   the folder of photos and videos, scanned recursively (required);\n"
    "                  its files are never modified\n"
    "  --catalog FILE  the catalogue (default ~/.velko/headless/catalog.sqlite)\n"
    "  --luts DIR      .cube files offered as looks (default ~/.velko/luts)\n"
    "  --allow-saving  allow photo.geotag and video.commit\n"
    "  --allow-delete  allow photo.delete (files move to ~/.velko/headless/trash)\n";

namespace {

std::string absolute(const std::string& path, const std::string& home) {
  std::string p = path;
  if (p == "~" || p.starts_with("~/")) {
    p = home + p.substr(1);
  }
  return std::filesystem::absolute(p).lexically_normal().string();
}

CommandLine failure(const std::string& message) {
  return {std::nullopt, "velko-headless: " + message + "\n" + kUsage, 2};
}

} // namespace

CommandLine parseCommandLine(const std::vector<std::string>& args, const std::string& home) {
  Options o;
  std::optional<std::string> library, catalog, luts;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::optional<std::string>& slot) -> bool {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        return false;
      }
      slot = args[++i];
      return true;
    };
    if (a == "--help" || a == "-h") {
      return {std::nullopt, kUsage, 0};
    }
    if (a == "--version") {
      return {std::nullopt, std::string("velko-headless ") + kVersion + "\n", 0};
    }
    if (a == "--allow-saving") {
      o.allowSaving = true;
    } else if (a == "--allow-delete") {
      o.allowDelete = true;
    } else if (a == "--library" || a == "--catalog" || a == "--luts") {
      auto& slot = a == "--library" ? library : a == "--catalog" ? catalog : luts;
      if (!value(slot)) {
        return failure(a + " needs a path");
      }
    } else {
      return failure("unknown argument \"" + a + "\"");
    }
  }
  if (!library) {
    return failure("--library DIR is required");
  }
  const Folders f = Folders::forHome(home);
  o.library = absolute(*library, home);
  o.catalog = catalog ? absolute(*catalog, home) : f.headless + "/catalog.sqlite";
  o.luts = luts ? absolute(*luts, home) : f.support + "/luts";
  return {o, {}, 0};
}

Folders Folders::forHome(const std::string& home) {
  Folders f;
  f.home = home;
  f.support = protocol::IPCEndpoint::supportDir(home);
  f.headless = f.support + "/headless";
  f.trash = f.headless + "/trash";
  f.renditions = f.headless + "/renditions";
  f.exports = f.headless + "/exports";
  f.exchange = protocol::IPCEndpoint::exchangeDir(home);
  return f;
}

void Folders::create() const {
  for (const std::string* dir : {&support, &headless, &trash, &renditions, &exports, &exchange}) {
    std::error_code ec;
    std::filesystem::create_directories(*dir, ec);
    if (ec) {
      throw std::runtime_error("cannot create " + *dir + ": " + ec.message());
    }
  }
  // The support folder holds the socket: it is the user's own.
  ::chmod(support.c_str(), 0700);
  ::chmod(headless.c_str(), 0700);
}

} // namespace velko::app
