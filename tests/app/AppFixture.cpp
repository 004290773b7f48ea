#include "app/AppFixture.h"

#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Methods.h"
#include "json/Codec.h"

#include <cmath>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace velko::app::testing {
namespace {

/// `v` as an EXIF rational over `denominator`.
std::string rational(double v, long denominator) {
  return std::to_string(std::llround(v * static_cast<double>(denominator))) + "/" +
         std::to_string(denominator);
}

/// Signed decimal degrees as the three rationals of a GPS tag and its reference letter.
void setDegrees(vips::VImage& image, const std::string& tag, double value, const char* pos,
                const char* neg) {
  const double a = std::fabs(value);
  const double d = std::floor(a);
  const double m = std::floor((a - d) * 60);
  const std::string dms =
      rational(d, 1) + " " + rational(m, 1) + " " + rational(((a - d) * 60 - m) * 60, 10000);
  image.set(("exif-ifd3-" + tag).c_str(), dms.c_str());
  image.set(("exif-ifd3-" + tag + "Ref").c_str(), value < 0 ? neg : pos);
}

} // namespace

void writePhoto(const std::string& path, const PhotoSpec& shot) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  vips::VImage image;
  if (shot.pattern) {
    vips::VImage x = vips::VImage::xyz(shot.width, shot.height);
    vips::VImage dx = x[0] - shot.width / 2.0, dy = x[1] - shot.height / 2.0;
    vips::VImage disc =
        ((dx * dx + dy * dy) < (shot.height * shot.height / 9.0)).ifthenelse(255, 0);
    image =
        vips::VImage::bandjoin({x[0] * (255.0 / shot.width), x[1] * (255.0 / shot.height), disc});
  } else {
    image = vips::VImage::black(shot.width, shot.height, vips::VImage::option()->set("bands", 3)) +
            std::vector<double>{double(shot.red), double(shot.green), double(shot.blue)};
  }
  image = image.cast(VIPS_FORMAT_UCHAR)
              .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  // An empty EXIF block (an Intel TIFF header and an empty first directory), which libvips fills
  // from the fields below when it saves.
  static constexpr char kEmptyExif[] = "Exif\0\0II*\0\x08\0\0\0\0\0\0\0\0\0";
  image.set(VIPS_META_EXIF_NAME, nullptr, const_cast<char*>(kEmptyExif), sizeof kEmptyExif - 1);
  const std::optional<double> t = shot.exposureSeconds;
  const std::pair<const char*, std::string> text[] = {
      {"exif-ifd0-Make", shot.make.value_or("")},
      {"exif-ifd0-Model", shot.model.value_or("")},
      {"exif-ifd2-LensModel", shot.lens.value_or("")},
      {"exif-ifd2-DateTimeOriginal", shot.dateTimeOriginal.value_or("")},
      {"exif-ifd2-ISOSpeedRatings", shot.iso ? std::to_string(*shot.iso) : ""},
      {"exif-ifd2-FNumber", shot.fNumber ? rational(*shot.fNumber, 10) : ""},
      {"exif-ifd2-FocalLength", shot.focalLength ? rational(*shot.focalLength, 10) : ""},
      {"exif-ifd2-ExposureTime",
       !t ? "" : *t < 1 ? "1/" + std::to_string(std::llround(1 / *t)) : rational(*t, 10)},
  };
  for (const auto& [field, value] : text) {
    if (!value.empty()) {
      image.set(field, value.c_str());
    }
  }
  if (shot.latitude && shot.longitude) {
    setDegrees(image, "GPSLatitude", *shot.latitude, "N", "S");
    setDegrees(image, "GPSLongitude", *shot.longitude, "E", "W");
  }
  image.set("orientation", shot.orientation);
  image.write_to_file(path.c_str());
}

int connectUnix(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  const timeval limit{10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::optional<std::string> roundTrip(const std::string& socketPath, std::string_view bytes) {
  const int fd = connectUnix(socketPath);
  if (fd < 0) {
    return std::nullopt;
  }
  std::string reply;
  if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
    char chunk[4096];
    for (ssize_t n;
         reply.find('\n') == std::string::npos && (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) {
      reply.append(chunk, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  const std::size_t end = reply.find('\n');
  return end == std::string::npos ? std::nullopt : std::optional(reply.substr(0, end));
}

std::optional<json::Value> rpc(const std::string& socketPath, std::string_view method,
                               const json::Value& params) {
  const auto reply = roundTrip(
      socketPath, json::toCompact(json::Object{
                      {"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}) +
                      "\n");
  return reply ? std::optional(json::parse(*reply)) : std::nullopt;
}

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit,
             std::chrono::milliseconds every) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) {
      return false;
    }
    std::this_thread::sleep_for(every);
  }
  return true;
}

std::vector<std::vector<std::string>> readRows(const std::string& file, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_stmt* s = nullptr;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
      sqlite3_busy_timeout(db, 5000) != SQLITE_OK ||
      sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) {
    const std::string why = file + ": " + sqlite3_errmsg(db);
    sqlite3_close(db);
    throw std::runtime_error(why);
  }
  std::vector<std::vector<std::string>> rows;
  while (sqlite3_step(s) == SQLITE_ROW) {
    std::vector<std::string>& row = rows.emplace_back();
    for (int i = 0; i < sqlite3_column_count(s); ++i) {
      const unsigned char* text = sqlite3_column_text(s, i);
      row.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
    }
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return rows;
}

void ProgramTest::SetUp() {
  const std::string why = velko::testing::privateHomeUnavailableReason();
  if (!why.empty()) {
    GTEST_SKIP() << why;
  }
  std::filesystem::create_directories(home());
  initImaging();
}

std::vector<std::string> ProgramTest::headless(const std::string& headless,
                                               const std::string& flags,
                                               const std::string& mcp) const {
  const std::string run = "\"$3\" --library \"$4\" " + flags + " 2>>\"$5\"";
  const std::string script =
      "mount --bind \"$1\" \"$2\" || exit 97\n" +
      (mcp.empty()
           ? "exec " + run + "\n"
           : run + " &\ni=0; while [ ! -S \"$2/.velko/ipc.sock\" ]; do\n"
                   "  i=$((i+1)); [ $i -gt 600 ] && exit 98; sleep 0.05\ndone\nexec \"$6\"\n");
  // The script's $1..$6 follow "sh", its $0.
  return {"/usr/bin/unshare", "--mount", "--", "/bin/sh", "-c", script, "sh",
          home(), velko::testing::passwordHome(), headless, library(),
          root_.path() + "/headless.log", mcp};
}

McpSession::McpSession(const std::vector<std::string>& argv) : process(argv) {
  call(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2024-11-05",)"
       R"("capabilities":{},"clientInfo":{"name":"tests","version":"1"}}})");
  process.send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
}

json::Value McpSession::call(const std::string& line) {
  process.send(line);
  process.readLine(line_, std::chrono::seconds(120));
  return json::parse(line_);
}

ToolReply McpSession::tool(std::string_view name, const json::Value& arguments) {
  const json::Value reply = call(json::toCompact(
      json::Object{{"jsonrpc", "2.0"},
                   {"id", ++id_},
                   {"method", "tools/call"},
                   {"params", json::Object{{"name", name}, {"arguments", arguments}}}}));
  const json::Value* result = reply.as_object().if_contains("result");
  if (result == nullptr) {
    return {.rawText = json::toCompact(reply)};
  }
  ToolReply r{.isError = result->at("isError").as_bool()};
  for (const json::Value& item : result->at("content").as_array()) {
    if (item.at("type") == "text" && r.rawText.empty()) {
      r.rawText = std::string(item.at("text").as_string());
      try {
        r.text = json::parse(r.rawText);
      } catch (const std::exception&) {
      }
    }
  }
  return r;
}

AppFixture::AppFixture() : home_(root_.path() + "/home"), library_(root_.path() + "/library") {
  std::filesystem::create_directories(home_);
  std::filesystem::create_directories(library_);
  initImaging();
  options_.library = library_;
  options_.catalog = home_ + "/.velko/headless/catalog.sqlite";
  options_.luts = home_ + "/.velko/luts";
}

void AppFixture::open(bool scan) {
  app_.reset();
  app_ = std::make_unique<App>(options_, Folders::forHome(home_));
  if (scan) {
    app_->library().scan();
  }
}

std::string AppFixture::openOne(const std::string& name, const PhotoSpec& shot) {
  writePhoto(libraryFile(name), shot);
  open();
  return ids().at(0);
}

json::Value AppFixture::call(std::string_view method, const json::Value& params) {
  json::Object request{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}};
  if (!params.is_null()) {
    request["params"] = params;
  }
  const std::string reply = answer(*app_, json::toCompact(request));
  json::Value parsed = json::parse(reply);
  const json::Object& o = parsed.as_object();
  if (const json::Value* e = o.if_contains("error")) {
    throw CallError(e->at("code").to_number<std::int64_t>(),
                    std::string(e->at("message").as_string()));
  }
  return o.at("result");
}

CallError AppFixture::callError(std::string_view method, const json::Value& params) {
  try {
    ADD_FAILURE() << method << " succeeded: " << json::toCompact(call(method, params));
  } catch (const CallError& e) {
    return e;
  }
  return CallError(0, "");
}

std::vector<std::string> AppFixture::ids() {
  std::vector<std::string> out;
  json::Value page = call("library.list", json::Object{{"limit", 500}});
  for (const json::Value& p : page.at("photos").as_array()) {
    out.emplace_back(p.at("id").as_string());
  }
  return out;
}

} // namespace velko::app::testing
