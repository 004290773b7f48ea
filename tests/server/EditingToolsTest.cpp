#include "core/Uuid.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using testing::invokeTool;
using testing::RecordingCaller;
using testing::textAt;

constexpr const char* kEditSetReply = R"({"newVersion":5,"stack":{"values":{},"version":5}})";
constexpr const char* kEditSetReplyWithPreview =
    R"({"newVersion":5,"stack":{"values":{},"version":5},"preview":{"pngBase64":"UE5H",)"
    R"("width":512,"height":341,"appliedStackVersion":5,"basedOnOriginal":false}})";

std::string sentOps(const RecordingCaller& caller) {
  return json::toCompact(caller.requests.back().params->at("ops"));
}

TEST(EditingTools, EditSetSendsTheOpsWithTheAgentName) {
  RecordingCaller caller;
  caller.answer(kEditSetReply);
  invokeTool("velko_edit_set",
             R"({"id":"A","ops":[{"kind":"exposure","scalar":0.7},)"
             R"({"kind":"crop","rect":[[0,0],[1,0.5]]}],"expectedVersion":4.9})",
             caller);
  EXPECT_EQ(caller.sent(),
            std::vector<std::string>{
                R"(edit.set {"id":"A","ops":[{"kind":"exposure","scalar":0.7},)"
                R"({"kind":"crop","rect":[[0,0],[1,0.5]]}],"maskOps":[],"expectedVersion":4,)"
                R"("agent":"claude-mcp","preview":false})"});
}

// "add" creates the mask under a fresh id ("M" below) and tunes it with one setAdjustment per
// known numeric adjustment; the other actions address an existing mask by its id, upper-cased.
TEST(EditingTools, MaskActionsBecomeMaskOps) {
  const std::string mask = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  struct Case {
    std::string arguments;
    std::string maskOps;
  } cases[] = {
      {R"({"id":"A"})", R"([{"action":"add","id":"M","shape":{"aiSubject":{"inverted":false}}}])"},
      {R"({"id":"A","type":"radial","adjustments":{"exposure":0.3,"sparkle":1,"contrast":"x"}})",
       R"([{"action":"add","id":"M","shape":{"radial":{"center":[0.5,0.5],"radius":[0.3,0.3],)"
       R"("feather":0.4,"inverted":false}}},)"
       R"({"action":"setAdjustment","id":"M","adjustment":"exposure","value":0.3}])"},
      {R"({"id":"A","action":"set","mask":")" + mask + R"(","adjustments":{"exposure":0.5}})",
       R"([{"action":"setAdjustment","id":")" + mask +
           R"(","adjustment":"exposure","value":0.5}])"},
      {R"({"id":"A","action":"enable","mask":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f"})",
       R"([{"action":"setEnabled","id":")" + mask + R"(","enabled":true}])"},
      {R"({"id":"A","action":"remove","mask":")" + mask + R"(","expectedVersion":3})",
       R"([{"action":"remove","id":")" + mask + R"("}])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    RecordingCaller caller;
    caller.answer(kEditSetReply);
    invokeTool("velko_mask", c.arguments.c_str(), caller);
    ASSERT_EQ(caller.requests.size(), 1u);
    const json::Value& params = *caller.requests[0].params;
    const std::string id(params.at("maskOps").at(0).at("id").as_string());
    std::string sent = json::toCompact(params.at("maskOps"));
    if (id != mask) {
      EXPECT_TRUE(core::Uuid::parse(id).has_value()) << id;
      sent = std::regex_replace(sent, std::regex(id), "M");
    }
    EXPECT_EQ(sent, c.maskOps);
  }
}

TEST(EditingTools, PreviewRenderPutsTheImageFirst) {
  RecordingCaller caller;
  caller.answer(R"({"pngBase64":"UE5H","width":512,"height":384,"appliedStackVersion":7,)"
                R"("basedOnOriginal":false})");
  ToolResult approximated =
      invokeTool("velko_preview_render", R"({"id":"A","longEdge":300.7})", caller);
  EXPECT_EQ(caller.sent(), std::vector<std::string>{R"(preview.render {"id":"A","longEdge":300})"});
  EXPECT_EQ(
      json::Value(approximated),
      json::parse(R"j({"content":[{"type":"image","data":"UE5H","mimeType":"image/png"},)j"
                  R"j({"type":"text","text":"512\u00d7384, stack version 7 (approximated on )j"
                  R"j(the local derivative \u2014 the iCloud original isn't downloadable )j"
                  R"j(right now; detail sliders read slightly stronger than a real commit )j"
                  R"j(will)"}],"isError":false})j"));
}

// The look tools: the ops they send (after the lut.list lookup of velko_lut) and the summary shown
// when a preview was asked for, the reply as JSON otherwise. The crop rectangle is normalised into
// the photo; LUT names from any script match whatever their case, ids only as written.
TEST(EditingTools, LookToolsSendTheirOpsAndSummarise) {
  constexpr const char* kLuts =
      R"({"luts":[{"id":"L1","name":"Été Ärger"},{"id":"l2","name":"Σκιά"}]})";
  const std::string replyShown = json::toPretty(json::parse(kEditSetReply));
  struct Case {
    const char* tool;
    const char* arguments;
    const char* luts;  // the lut.list reply; null: not asked
    const char* ops;   // the edit.set ops; null: nothing set, an error result
    std::string shown; // the result's text
  } cases[] = {
      {"velko_crop", R"({"id":"A","x":0.9,"y":0,"width":0.5,"height":1,"preview":true})", nullptr,
       R"([{"kind":"crop","rect":[[0.9,0],[0.09999999999999998,1]]}])",
       "Cropped to x:0.90 y:0.00 w:0.10 h:1.00 (version 5)."},
      {"velko_crop", R"({"id":"A","x":0.2,"y":0.25,"width":0,"height":0.5,"preview":true})",
       nullptr, R"([{"kind":"crop","rect":[[0.2,0.25],[0.01,0.5]]}])",
       "Cropped to x:0.20 y:0.25 w:0.01 h:0.50 (version 5)."},
      {"velko_crop", R"({"id":"A","x":1.2,"y":-1,"width":0.5,"height":2,"preview":true})",
       nullptr, R"([{"kind":"crop","rect":[[1,0],[0,1]]}])",
       "Cropped to x:1.00 y:0.00 w:0.00 h:1.00 (version 5)."},
      {"velko_lut", R"({"id":"A","lut":"None"})", nullptr,
       R"([{"kind":"lut","remove":true},{"kind":"lutIntensity","remove":true}])", replyShown},
      {"velko_lut", R"({"id":"A","lut":"ÉTÉ ärger","preview":true})", kLuts,
       R"([{"kind":"lut","string":"L1"},{"kind":"lutIntensity","scalar":1}])",
       "Applied LUT (version 5)."},
      {"velko_lut", R"({"id":"A","lut":"l2","intensity":-0.5})", kLuts,
       R"([{"kind":"lut","string":"l2"},{"kind":"lutIntensity","scalar":0}])", replyShown},
      {"velko_lut", R"({"id":"A","lut":"L2"})", kLuts, nullptr,
       "no imported LUT 'L2'. Available: Été Ärger, Σκιά"},
      {"velko_lut", R"({"id":"A","lut":"x"})", R"({"luts":[]})", nullptr,
       "no imported LUT 'x'. Available: (none \u2014 the user imports LUTs in the app)"},
      // The whole target list is sent, defaults filled in; an empty one clears them.
      {"velko_point_color",
       R"({"id":"A","targets":[{"targetHue":0.6,"targetSat":0.5,"targetLum":0.4,)"
       R"("sat":0.2,"lum":-1.5}]})",
       nullptr,
       R"([{"kind":"pointColor","pointColors":[{"targetHue":0.6,"targetSat":0.5,)"
       R"("targetLum":0.4,"hue":0,"sat":0.2,"lum":-1.5,"range":0.5}]}])",
       replyShown},
      {"velko_point_color", R"({"id":"A","targets":[],"preview":true})", nullptr,
       R"([{"kind":"pointColor","pointColors":[]}])", "Set 0 point-color target(s) (version 5)."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    RecordingCaller caller;
    if (c.luts != nullptr) {
      caller.answer(c.luts);
    }
    if (c.ops != nullptr) {
      caller.answer(std::string(c.arguments).find("preview") != std::string::npos
                        ? kEditSetReplyWithPreview
                        : kEditSetReply);
    }
    const ToolResult result = invokeTool(c.tool, c.arguments, caller);
    EXPECT_EQ(caller.requests.size(), (c.luts != nullptr) + (c.ops != nullptr));
    if (c.ops != nullptr) {
      EXPECT_EQ(sentOps(caller), c.ops);
    }
    EXPECT_EQ(textAt(result, 0), c.shown);
    EXPECT_EQ(result.at("isError"), c.ops == nullptr);
  }
}

} // namespace
} // namespace velko::server
