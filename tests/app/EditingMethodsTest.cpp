#include "app/AppFixture.h"
#include "app/ColorProfiles.h"

#include <fstream>
#include <glib.h>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;

class EditingMethods : public AppFixture {
protected:
  json::Value set(const std::string& id, json::Array ops, json::Object extra = {}) {
    extra["id"] = id;
    extra["ops"] = std::move(ops);
    return call("edit.set", extra);
  }

  static vips::VImage decodePng(const json::Value& preview) {
    gsize size = 0;
    g_autofree guchar* bytes =
        g_base64_decode(std::string(preview.at("pngBase64").as_string()).c_str(), &size);
    return vips::VImage::new_from_buffer(bytes, size, "").copy_memory();
  }
};

json::Object exposure(double ev) {
  return {{"kind", "exposure"}, {"scalar", ev}};
}

TEST_F(EditingMethods, SetRecordsTheAgentAndRefusedPatchesChangeNothing) {
  const std::string id = openOne("a.jpg");
  json::Value r = set(id, {exposure(0.5), json::Object{{"kind", "contrast"}, {"scalar", 0.2}}},
                      {{"agent", "claude-mcp"}, {"sessionId", "s1"}, {"expectedVersion", 0}});
  EXPECT_EQ(r.at("newVersion").as_int64(), 2);
  EXPECT_FALSE(r.as_object().contains("preview"));
  set(id, {json::Object{{"kind", "treatment"}, {"boolean", true}}});

  const json::Value before = call("edit.get", json::Object{{"id", id}});
  EXPECT_EQ(before.at("version").as_int64(), 3);
  const json::Value& values = before.at("stack").at("values");
  EXPECT_EQ(values.at("exposure").at("lastModifiedBy"),
            json::parse(R"({"ai":{"agent":"claude-mcp","sessionId":"s1"}})"));
  EXPECT_EQ(values.at("exposure").at("payload"), json::parse(R"({"scalar":{"_0":0.5}})"));
  EXPECT_EQ(values.at("treatment").at("lastModifiedBy"), json::parse(R"({"user":{}})"));

  const std::pair<const char*, json::Object> cases[] = {
      {"op with no value", {{"ops", json::Array{exposure(3), json::Object{{"kind", "contrast"}}}}}},
      {"missing mask after a good op",
       {{"ops", json::Array{exposure(3)}},
        {"maskOps", json::parse(R"([{"action":"setEnabled","enabled":false,)"
                                R"("id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}])")}}},
  };
  for (auto [name, params] : cases) {
    SCOPED_TRACE(name);
    params["id"] = id;
    EXPECT_EQ(callError("edit.set", params).code, -32602);
    EXPECT_EQ(call("edit.get", json::Object{{"id", id}}), before);
  }
}

// Stored 300×200 with orientation 6: previews, exports and the rendition are 200×300.
TEST_F(EditingMethods, PreviewsAndExportsAreUprightAtTheAskedSize) {
  const std::string id =
      openOne("IMG_7.jpg", {.width = 300, .height = 200, .make = "TestCam", .orientation = 6});
  // No long edge, the smallest, and one past the photo's (never enlarged).
  for (const auto& [longEdge, width, height] :
       {std::tuple<json::Value, int, int>{nullptr, 200, 300}, {1, 11, 16}, {100000, 200, 300}}) {
    SCOPED_TRACE(json::toCompact(longEdge));
    json::Object params{{"id", id}};
    if (!longEdge.is_null()) {
      params["longEdge"] = longEdge;
    }
    json::Value r = call("preview.render", params);
    EXPECT_EQ(r.at("width"), width);
    EXPECT_EQ(r.at("height"), height);
    EXPECT_EQ(r.at("basedOnOriginal"), true);
    vips::VImage png = decodePng(r);
    EXPECT_EQ(png.width(), width);
    EXPECT_EQ(png.height(), height);
  }

  struct Export {
    const char* format;
    const char* loader;
    const char* suggested;
    VipsBandFormat bandFormat;
  } exports[] = {{"jpeg", "jpegload", "IMG_7.jpg", VIPS_FORMAT_UCHAR},
                 {"heic", "heifload", "IMG_7.heic", VIPS_FORMAT_UCHAR},
                 {"tiff16", "tiffload", "IMG_7.tiff", VIPS_FORMAT_USHORT}};
  for (const Export& c : exports) {
    SCOPED_TRACE(c.format);
    json::Value r =
        call("export.render",
             json::Object{{"id", id}, {"format", c.format}, {"longEdge", 150}, {"quality", 0.5}});
    EXPECT_EQ(r.at("suggestedFilename"), c.suggested);
    EXPECT_EQ(r.at("format"), c.format);
    const std::string path(r.at("path").as_string());
    EXPECT_EQ(r.at("bytes").as_int64(), static_cast<std::int64_t>(fs::file_size(path)));
    vips::VImage image = vips::VImage::new_from_file(path.c_str());
    EXPECT_EQ(std::string(image.get_string("vips-loader")), c.loader);
    EXPECT_EQ(image.width(), 100);
    EXPECT_EQ(image.height(), 150);
    EXPECT_EQ(image.format(), c.bandFormat);
    if (std::string(c.format) == "jpeg") {
      // The camera's EXIF comes along, upright.
      EXPECT_EQ(std::string(image.get_string("exif-ifd0-Make")).rfind("TestCam", 0), 0u);
      EXPECT_EQ(image.get_int(VIPS_META_ORIENTATION), 1);
    }
  }
  // A commit writes the upright full-size rendition.
  EXPECT_EQ(call("edit.commit", json::Object{{"id", id}}),
            json::parse(R"({"committed":true,"version":0})"));
  const std::string rendition = app().folders().renditions + "/" + id.substr(0, 36) + ".jpg";
  EXPECT_EQ(vips::VImage::new_from_file(rendition.c_str()).height(), 300);
  // Full size by default; a second export never takes the first one's file; Display P3 exports
  // carry that profile, not sRGB's.
  json::Value a = call("export.render", json::Object{{"id", id}});
  json::Value p3 = call("export.render", json::Object{{"id", id}, {"colorSpace", "displayP3"}});
  EXPECT_NE(a.at("path"), p3.at("path"));
  EXPECT_EQ(vips::VImage::new_from_file(std::string(a.at("path").as_string()).c_str()).height(),
            300);
  vips::VImage p3Image =
      vips::VImage::new_from_file(std::string(p3.at("path").as_string()).c_str());
  size_t length = 0;
  const void* profile = p3Image.get_blob(VIPS_META_ICC_NAME, &length);
  EXPECT_EQ(std::string(static_cast<const char*>(profile), length), displayP3IccBytes());

  // The global edits show: a quarter turn back to landscape, half the width cropped, a stop up.
  const double plain = decodePng(call("preview.render", json::Object{{"id", id}})).avg();
  json::Value r =
      set(id,
          {json::Object{{"kind", "rotation"}, {"scalar", 1}},
           json::Object{{"kind", "crop"}, {"rect", json::parse("[[0,0],[0.5,1]]")}}, exposure(1)},
          {{"preview", true}, {"previewLongEdge", 100}});
  const json::Value& preview = r.at("preview");
  EXPECT_EQ(preview.at("appliedStackVersion"), r.at("newVersion"));
  EXPECT_EQ(preview.at("width").as_int64(), 75);
  EXPECT_EQ(preview.at("height").as_int64(), 100);
  EXPECT_GT(decodePng(preview).avg(), plain + 20);
}

TEST_F(EditingMethods, LooksFolderIsListedAndPreviewsShowTheLookAtItsIntensity) {
  const std::string id = openOne("a.jpg", {.red = 200, .green = 100, .blue = 20});
  EXPECT_TRUE(call("lut.list").at("luts").as_array().empty());
  fs::create_directories(options_.luts + "/film");
  std::ofstream(options_.luts + "/b.cube") << "TITLE \"Film Look\"\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n";
  // Red and blue trade places.
  std::ofstream(options_.luts + "/film/Swap.cube")
      << "# x\nLUT_3D_SIZE 2\n0 0 0\n0 0 1\n0 1 0\n0 1 1\n1 0 0\n1 0 1\n1 1 0\n1 1 1\n";
  std::ofstream(options_.luts + "/short.cube") << "LUT_3D_SIZE 2\n0 0 0\n1 1 1\n"; // malformed
  std::ofstream(options_.luts + "/notes.txt") << "LUT_3D_SIZE 2\n";
  std::ofstream(options_.luts + "/empty.cube") << "just text\n";
  json::Value luts = call("lut.list").at("luts");
  ASSERT_EQ(luts.as_array().size(), 2u);
  EXPECT_EQ(luts.at(0).at("name"), "Film Look");
  EXPECT_EQ(luts.at(1).at("name"), "Swap");

  // Halfway between (200, 100, 20) and its swap: neither the look nor its intensity is lost.
  const json::Value r = set(id,
                            {json::Object{{"kind", "lut"}, {"string", "Swap"}},
                             json::Object{{"kind", "lutIntensity"}, {"scalar", 0.5}}},
                            {{"preview", true}});
  const vips::VImage png = decodePng(r.at("preview"));
  EXPECT_NEAR(png.extract_band(0).avg(), 110, 4);
  EXPECT_NEAR(png.extract_band(2).avg(), 110, 4);
  set(id, {json::Object{{"kind", "lut"}, {"string", "Gone"}}});
  EXPECT_EQ(callError("preview.render", json::Object{{"id", id}}).code, -32603);
}

} // namespace
} // namespace velko::app::testing
