// Feeds request frames to velko-headless's request path, one frame in and one reply out, against
// a scratch library of three 16×16 JPEGs. The first input byte picks the mode (its value mod 3):
//   0  the rest is a whole request frame, sent as it is;
//   1  the second byte picks a method (mod the number of methods) and the rest is its `params`
//      JSON, sent in a well-formed envelope;
//   2  like 1, with placeholders replaced first: "$ID0" to "$ID2" (and "$ID") by the catalogued
//      photo ids, "$X" by the exchange folder and "$L" by the library folder.
// Every reply must be one line holding one JSON object with "result" or "error".
//
// Everything the methods write stays in a scratch directory: the home (trash, renditions,
// exports, exchange) and the library live there, and the App is rebuilt over fresh copies every
// 1,000 inputs so the catalogue and the folders never grow without bound.
#include "FuzzCheck.h"
#include "app/App.h"
#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Methods.h"
#include "json/Errors.h"
#include "json/Value.h"
#include "protocol/IPCMethod.h"
#include "support/TestPeer.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include <vips/vips8>

namespace fs = std::filesystem;
namespace json = velko::json;
namespace app = velko::app;

namespace {

constexpr std::size_t kMaxInput = 64 * 1024;
constexpr int kInputsPerWorld = 1000;
constexpr int kRestagesPerWorld = 50; ///< imports move the staged file into the library

using velko::fuzz::check;
using velko::fuzz::fail;
using velko::testing::writeFile;

/// A 16×16 JPEG of one colour, with an EXIF orientation.
std::string tinyJpeg(double r, double g, double b, int orientation) {
  vips::VImage image =
      (vips::VImage::black(16, 16, vips::VImage::option()->set("bands", 3)) +
       std::vector<double>{r, g, b})
          .cast(VIPS_FORMAT_UCHAR)
          .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  image.set("orientation", orientation);
  void* buffer = nullptr;
  std::size_t size = 0;
  image.write_to_buffer(".jpg", &buffer, &size);
  std::string bytes(static_cast<char*>(buffer), size);
  g_free(buffer);
  return bytes;
}

velko::testing::TempDir& scratch() {
  static velko::testing::TempDir dir; // removed at exit
  return dir;
}

struct World {
  std::string root = fs::canonical(scratch().path()).string();
  std::string home = root + "/home", library = root + "/library", luts = root + "/luts";
  std::string exchange, staged;
  std::string stagedBytes = tinyJpeg(120, 120, 20, 8);
  std::unique_ptr<app::App> app;
  std::vector<std::string> ids;
  int inputs = 0;
  int restages = 0;

  void build() {
    app.reset();
    for (const std::string& folder : {home, library, luts}) {
      fs::remove_all(folder);
    }
    writeFile(library + "/a.jpg", tinyJpeg(200, 40, 40, 1));
    writeFile(library + "/2024/b.jpg", tinyJpeg(40, 200, 40, 6));
    writeFile(library + "/2024/c d.jpg", tinyJpeg(40, 40, 200, 3));
    writeFile(luts + "/warm.cube", "TITLE \"Warm\"\nLUT_3D_SIZE 2\n"
                                   "0 0 0\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n1 1 1\n");
    writeFile(luts + "/film/cold.cube", "LUT_3D_SIZE 2\n0 0 0\n");
    writeFile(luts + "/broken.cube", "LUT_3D_SIZE\n");

    const app::Options options{.library = library,
                               .catalog = home + "/.velko/headless/catalog.sqlite",
                               .luts = luts,
                               .allowSaving = true,
                               .allowDelete = true};
    app = std::make_unique<app::App>(options, app::Folders::forHome(home));
    app->library().scan();
    exchange = app->folders().exchange;
    staged = exchange + "/staged.jpg";
    writeFile(staged, stagedBytes);
    writeFile(exchange + "/notes.txt", "not a photo");
    fs::create_directories(exchange + "/folder.jpg");
    fs::create_symlink(library + "/a.jpg", exchange + "/outside.jpg");
    fs::create_symlink("../../library/2024/b.jpg", exchange + "/relative.jpg");

    ids.clear();
    const std::string reply = app::answer(
        *app, R"({"jsonrpc":"2.0","id":1,"method":"library.list","params":{"limit":10}})");
    const json::Value parsed = json::parse(reply);
    for (const json::Value& photo : parsed.at("result").at("photos").as_array()) {
      ids.emplace_back(photo.at("id").as_string());
    }
    check(ids.size() == 3, "the scratch library should hold three photos", reply);
    inputs = restages = 0;
  }

  /// Puts the staged file back after an import moved it into the library.
  void restage() {
    if (!fs::exists(staged)) {
      writeFile(staged, stagedBytes);
      ++restages;
    }
  }
};

World& world() {
  static World* w = [] {
    app::initImaging();
    auto* created = new World; // never destroyed: the App stays up until the process ends
    created->build();
    return created;
  }();
  return *w;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::string substituted(std::string text, const World& w) {
  for (std::size_t k = 0; k < w.ids.size(); ++k) {
    replaceAll(text, "$ID" + std::to_string(k), w.ids[k]);
  }
  replaceAll(text, "$ID", w.ids.front());
  replaceAll(text, "$X", w.exchange);
  replaceAll(text, "$L", w.library);
  return text;
}

/// Sends `frame` and checks the reply.
void send(World& w, std::string_view frame) {
  std::string reply;
  bool answered = false;
  json::Value parsed;
  try {
    reply = app::answer(*w.app, frame);
    answered = true;
    parsed = json::parse(reply);
  } catch (const std::exception& e) {
    fail(std::string(answered ? "the reply is not JSON: " : "answer() threw: ") + e.what(),
         answered ? std::string_view(reply) : frame);
  } catch (...) {
    fail("answer() threw something that is not a std::exception", frame);
  }
  check(reply.find('\n') == std::string::npos, "the reply spans more than one line", reply);
  const json::Object* o = parsed.if_object();
  check(o != nullptr && o->contains("result") != o->contains("error"),
        "the reply is not an object with exactly one of \"result\" and \"error\"", reply);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > kMaxInput) {
    return 0;
  }
  World& w = world();
  if (++w.inputs > kInputsPerWorld || w.restages > kRestagesPerWorld) {
    w.build();
  }
  w.restage();

  const std::string_view input = velko::fuzz::asText(data, size);
  const int mode = data[0] % 3;
  if (mode == 0) {
    send(w, input.substr(1));
    return 0;
  }
  if (size < 2) {
    return 0;
  }
  constexpr auto methods = velko::protocol::allIPCMethods();
  const auto method = methods[data[1] % methods.size()];
  std::string text(input.substr(2));
  if (mode == 2) {
    text = substituted(std::move(text), w);
  }
  // The params go in as text, so what the parser accepts but the writer would refuse (2e308)
  // still reaches the application.
  std::string frame = R"({"jsonrpc":"2.0","id":7,"method":")" +
                      std::string(velko::protocol::rawValue(method)) + '"';
  if (!text.empty()) {
    try {
      json::parse(text);
    } catch (const json::DecodeError&) {
      return 0; // mode 0 covers frames that are not JSON
    }
    frame += ",\"params\":" + text;
  }
  send(w, frame + '}');
  return 0;
}
