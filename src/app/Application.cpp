#include "app/Application.h"

#include "app/App.h"
#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Listener.h"
#include "app/Log.h"
#include "app/Methods.h"
#include "json/Writer.h"
#include "protocol/IPCEndpoint.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace velko::app {
namespace {

using protocol::IPCEndpoint;

/// Writes the endpoint description beside the socket: to a temporary name, then renamed, so a
/// reader never sees half a file.
void writeEndpointFile(const std::string& path, const IPCEndpoint::EndpointInfo& info) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << json::toCompact(json::encode(info)) << '\n';
    if (!out.flush()) {
      throw std::runtime_error("cannot write " + temporary);
    }
  }
  ::chmod(temporary.c_str(), 0600);
  std::filesystem::rename(temporary, path);
}

} // namespace

int runApplication(const std::vector<std::string>& args) {
  const std::string home = IPCEndpoint::home();
  const CommandLine cmd = parseCommandLine(args, home);
  if (!cmd.run) {
    std::fputs(cmd.text.c_str(), cmd.exitStatus == 0 ? stdout : stderr);
    return cmd.exitStatus;
  }
  const Options& options = *cmd.run;

  // SIGINT and SIGTERM are taken by one thread with sigwait; every other thread blocks them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  try {
    std::error_code ec;
    if (!std::filesystem::is_directory(options.library, ec)) {
      logLine("the library folder " + options.library + " does not exist or is not a folder");
      return 1;
    }
    initImaging();
    const Folders folders = Folders::forHome(home);
    folders.create();
    std::filesystem::create_directories(std::filesystem::path(options.catalog).parent_path(), ec);
    Listener listener(IPCEndpoint::serverSocketPath(home));
    App app(options, folders);
    const std::string endpointFile =
        folders.support + "/" + std::string(IPCEndpoint::kEndpointFileName);
    writeEndpointFile(endpointFile, {listener.path(), protocol::kIpcProtocolVersion, kVersion,
                                     static_cast<std::int32_t>(::getpid())});

    std::thread signals([&listener, stopSignals] {
      int signal = 0;
      sigwait(&stopSignals, &signal);
      logLine(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
      listener.stop();
    });
    signals.detach();

    logLine("serving " + options.library + " on " + listener.path() + " (catalogue " +
            options.catalog + ")");
    app.library().start();
    listener.serve([&app](std::string_view frame) { return answer(app, frame); });
    app.library().stop();
    std::filesystem::remove(endpointFile, ec);
    logLine("stopped");
    return 0;
  } catch (const std::exception& e) {
    logLine(e.what());
    return 1;
  }
}

} // namespace velko::app
