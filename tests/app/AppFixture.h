// Test support for the application: photos with real EXIF blocks written through libvips, a
// fixture holding an App over a temporary home and library, with a call() that goes through the
// same request path as a socket connection, and what the tests of the built programs share.
#pragma once

#include "app/App.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "protocol/Rpc.h"
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vips/vips8>

namespace velko::app::testing {

using ::testing::HasSubstr;
using velko::testing::readFile;

struct PhotoSpec {
  int width = 64;
  int height = 48;
  unsigned char red = 128, green = 128, blue = 128; ///< the fill colour
  bool pattern = false;                             ///< a gradient with a disc instead of a fill
  std::optional<std::string> dateTimeOriginal;      ///< "YYYY:MM:DD HH:MM:SS"
  std::optional<double> latitude, longitude;        ///< signed decimal degrees
  std::optional<std::string> make, model, lens;
  std::optional<int> iso;
  std::optional<double> exposureSeconds, fNumber, focalLength;
  int orientation = 1;
};

/// Writes a JPEG (or, by the extension, PNG/TIFF/WebP) of that shot, with its EXIF.
void writePhoto(const std::string& path, const PhotoSpec& shot);

/// A connection to a Unix socket, with 10-second send and receive limits; -1 when refused.
int connectUnix(const std::string& path);
/// `bytes` sent on a connection of its own; the first reply line without its newline, or nothing
/// when the connection closed (or the limit passed) first.
std::optional<std::string> roundTrip(const std::string& socketPath, std::string_view bytes);
/// One JSON-RPC request on a roundTrip; the reply, or nothing when none came.
std::optional<json::Value> rpc(const std::string& socketPath, std::string_view method,
                               const json::Value& params = json::Object{});

/// Calls `done` every `every` until it holds or `limit` has passed; whether it held.
bool waitFor(const std::function<bool()>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(30),
             std::chrono::milliseconds every = std::chrono::milliseconds(50));

/// Every row of `sql` over an SQLite file, each column as text (NULL as ""), through a read-only
/// connection that leaves the file (and its write-ahead log) as it was. Throws
/// std::runtime_error.
std::vector<std::vector<std::string>> readRows(const std::string& file, const std::string& sql);

/// A test of the built programs in a private mount namespace whose home is home(), under a
/// temporary root that also holds library/ and the application's log, with libvips ready for
/// writing its photos; skipped where no namespace can be made.
class ProgramTest : public ::testing::Test {
protected:
  void SetUp() override;
  std::string home() const { return root_.path() + "/home"; }
  std::string library() const { return root_.path() + "/library"; }
  std::string log() const { return readFile(root_.path() + "/headless.log"); }
  std::string socket() const { return home() + "/.velko/ipc.sock"; }
  std::string catalogue() const { return home() + "/.velko/headless/catalog.sqlite"; }
  /// argv running `headless` over library() with `flags`, its standard error appended to the log.
  /// With `mcp`, the application runs in the background and `mcp` is exec'd in the same namespace
  /// once the socket is there; otherwise the application is exec'd.
  std::vector<std::string> headless(const std::string& headless, const std::string& flags,
                                    const std::string& mcp = "") const;
  velko::testing::TempDir root_;
};

/// A tool call's reply: whether it is an error, and its first text (parsed too, when it is JSON).
struct ToolReply {
  bool isError = true;
  std::string rawText;
  json::Value text;
};

/// An MCP session with a velko-mcp process started from `argv`: the handshake, then tool calls.
class McpSession {
public:
  explicit McpSession(const std::vector<std::string>& argv);
  ToolReply tool(std::string_view name, const json::Value& arguments = json::Object{});

  velko::testing::ServerProcess process;

private:
  json::Value call(const std::string& line);
  std::string line_;
  std::int64_t id_ = 0;
};

/// A reply's error, thrown by AppFixture::call.
struct CallError : std::runtime_error {
  CallError(std::int64_t c, const std::string& m) : std::runtime_error(m), code(c) {}
  std::int64_t code;
};

class AppFixture : public ::testing::Test {
protected:
  AppFixture();

  /// Opens (or reopens) the App over the folders; scans the library once when `scan`.
  void open(bool scan = true);
  /// Writes `name` into the library and opens the App over that one photo; its id.
  std::string openOne(const std::string& name, const PhotoSpec& shot = {});
  App& app() { return *app_; }

  /// Sends one request frame through the application's request path and returns `result`;
  /// throws CallError with the reply's error.
  json::Value call(std::string_view method, const json::Value& params = nullptr);
  /// The error code and message of a request that must fail.
  CallError callError(std::string_view method, const json::Value& params = nullptr);
  /// The ids of the catalogue, newest first.
  std::vector<std::string> ids();

  std::string libraryFile(const std::string& relative) const { return library_ + "/" + relative; }

  velko::testing::TempDir root_;
  std::string home_;
  std::string library_;
  Options options_;

private:
  std::unique_ptr<App> app_;
};

} // namespace velko::app::testing
