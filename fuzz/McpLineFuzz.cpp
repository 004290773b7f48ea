// Feeds MCP lines to the dispatcher, whose tool calls go through the real IPC client to a test
// peer on a Unix socket. The first input byte picks the mode: below 50 it names a tool by its
// place in the table and the first line is that tool's `arguments` JSON; otherwise the first
// line is a whole MCP message. Each further line is the peer's reply to the next request
// (afterwards the peer answers {"result":{}}). Every reply the dispatcher makes must be writable.
//
// Tools write files where their arguments and the peer's replies point, so the process works in
// a scratch home and directory: the password entry is replaced by one whose home is scratch,
// no other user exists, and path separators and ".." in arguments and replies are blanked.
#include "FuzzCheck.h"
#include "ipc/IPCClient.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "server/Dispatcher.h"
#include "server/ToolTable.h"
#include "server/Transport.h"
#include "support/TestPeer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <pwd.h>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace json = velko::json;
namespace server = velko::server;
using velko::testing::TempDir;
using velko::testing::TestPeer;

namespace {

TempDir& scratch() {
  static TempDir dir;
  return dir;
}

std::string blanked(std::string_view text) {
  std::string out(text);
  std::ranges::replace_if(out, [](char c) { return c == '/' || c == '\\'; }, '_');
  for (std::size_t at = out.find(".."); at != std::string::npos; at = out.find("..", at)) {
    out.replace(at, 2, "__");
  }
  return out;
}

void blankStrings(json::Value& v) {
  if (json::String* s = v.if_string()) {
    *s = blanked(std::string_view(s->data(), s->size()));
  } else if (json::Array* a = v.if_array()) {
    for (json::Value& e : *a) {
      blankStrings(e);
    }
  } else if (json::Object* o = v.if_object()) {
    for (auto& member : *o) {
      blankStrings(member.value());
    }
  }
}

/// Replies for the peer, one per request, in order.
std::mutex gRepliesMutex;
std::deque<std::string> gReplies;

std::string nextReply(const std::string&) {
  std::lock_guard lock(gRepliesMutex);
  if (gReplies.empty()) {
    return R"({"jsonrpc":"2.0","id":1,"result":{}})";
  }
  std::string reply = std::move(gReplies.front());
  gReplies.pop_front();
  return reply;
}

/// The dispatcher, its client and the peer, made once and never destroyed.
server::Dispatcher& dispatcher() {
  static TestPeer* const peer = [] {
    const std::string home = scratch().file("home");
    std::filesystem::create_directories(home);
    ::setenv("HOME", home.c_str(), 1);
    auto* created = new TestPeer(scratch().file("peer/ipc.sock"));
    created->setHandler(nextReply);
    return created;
  }();
  static auto* const client =
      new velko::ipc::IPCClient(peer->socketPath(), scratch().file("legacy.sock"));
  static auto* const d = new server::Dispatcher(*client);
  return *d;
}

void checkWritable(const std::optional<json::Value>& reply) {
  if (!reply) {
    return;
  }
  std::ostringstream out;
  std::ostringstream log;
  server::Transport(out, log).sendMessage(*reply);
  velko::fuzz::check(!out.str().empty(), "a reply could not be written", log.str());
}

} // namespace

// The process's own password entry, with the scratch home; no other user exists.
extern "C" passwd* getpwuid(uid_t uid) {
  static std::string home;
  static passwd entry{};
  home = scratch().file("home");
  entry.pw_name = const_cast<char*>("fuzz");
  entry.pw_dir = home.data();
  entry.pw_shell = const_cast<char*>("/bin/sh");
  entry.pw_uid = uid;
  return &entry;
}

extern "C" int getpwnam_r(const char*, passwd*, char*, std::size_t, passwd** result) {
  *result = nullptr;
  return 0;
}

extern "C" passwd* getpwnam(const char*) {
  return nullptr;
}

// Relative paths a tool is given resolve in the scratch directory, so the working directory
// moves there; the paths on the command line are made absolute first.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static std::vector<std::string> rewritten(static_cast<std::size_t>(*argc));
  for (int i = 1; i < *argc; ++i) {
    std::string& arg = rewritten[i] = (*argv)[i];
    // Where the path starts: after the flag's "=", at 0 for a corpus, nowhere for other flags.
    const std::size_t at = arg.starts_with("-artifact_prefix=") ? 17
                           : arg.starts_with('-')               ? std::string::npos
                                                                : 0;
    if (at < arg.size() && arg[at] != '/') {
      arg = arg.substr(0, at) + std::filesystem::current_path().string() + "/" + arg.substr(at);
    }
    (*argv)[i] = arg.data();
  }
  std::filesystem::create_directories(scratch().file("work"));
  velko::fuzz::check(::chdir(scratch().file("work").c_str()) == 0, "cannot work in the scratch");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  server::Dispatcher& d = dispatcher();
  if (size == 0) {
    return 0;
  }
  const std::size_t mode = data[0];
  std::string_view rest = velko::fuzz::asText(data + 1, size - 1);
  const auto takeLine = [&rest] {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return line;
  };
  const std::string_view first = takeLine();
  {
    std::lock_guard lock(gRepliesMutex);
    gReplies.clear();
    while (!rest.empty()) {
      gReplies.push_back(blanked(takeLine()));
    }
  }

  const auto& table = server::toolTable();
  if (mode < table.size()) {
    json::Value arguments;
    if (std::optional<json::Object> parsed =
            server::parseMessage("{\"a\":" + std::string(first) + "}")) {
      arguments = std::move((*parsed)["a"]);
    } // else the call goes out without arguments
    blankStrings(arguments);
    checkWritable(d.handle(json::Object{
        {"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
        {"params", json::Object{{"name", table[mode].name}, {"arguments", std::move(arguments)}}}}));
    return 0;
  }
  std::optional<json::Object> message = server::parseMessage(first);
  if (!message) {
    checkWritable(d.handleLine(first));
    return 0;
  }
  json::Value* params = message->if_contains("params");
  json::Object* p = params != nullptr ? params->if_object() : nullptr;
  if (json::Value* arguments = p != nullptr ? p->if_contains("arguments") : nullptr) {
    blankStrings(*arguments);
  }
  checkWritable(d.handle(json::Value(std::move(*message))));
  return 0;
}
