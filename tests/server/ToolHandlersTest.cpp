// Tool handlers against a recording Caller: what request goes out for given arguments, and what
// the assistant reads back; and the argument readers and prompts they share.
#include "core/Uuid.h"
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "server/Prompts.h"
#include "server/RecordingCaller.h"
#include "server/ToolSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <regex>

namespace velko::server {
namespace {

using testing::invokeTool;
using testing::RecordingCaller;
using testing::textAt;

std::string pretty(const char* text) {
  return json::toPretty(json::parse(text));
}

constexpr const char* kEditSetReply = R"({"newVersion":5,"stack":{"values":{},"version":5}})";
constexpr const char* kEditSetReplyWithPreview =
    R"({"newVersion":5,"stack":{"values":{},"version":5},"preview":{"pngBase64":"UE5H",)"
    R"("width":512,"height":341,"appliedStackVersion":5,"basedOnOriginal":false}})";

// The request that goes out for given arguments, and what the assistant reads back: for
// argument-record tools and list tools the decoded arguments re-encoded, and the reply as pretty,
// key-sorted JSON.
TEST(ToolHandlers, SendDecodedArgumentsAndShowTheReply) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* sent;
    const char* reply;
    const char* shown = nullptr; // the whole result; null: the reply as pretty JSON text
  } cases[] = {
      // Keys the record does not have are dropped.
      {"velko_list", R"({"limit":5,"cursor":100,"extra":true})",
       R"(library.list {"limit":5,"cursor":100})", R"({"photos":[],"nextCursor":105})"},
      // List tools read no arguments and send no params.
      {"velko_selection", R"({"ignored":1})", "library.selection",
       R"({"ids":["a","b"],"primary":"a"})"},
      // Dates are sent in UTC.
      {"velko_query",
       R"({"minRating":7,"dateFrom":"2026-07-12T00:00:00+02:00","show":true,"title":"T"})",
       R"(library.query {"dateFrom":"2026-07-11T22:00:00Z","minRating":7,"show":true,"title":"T"})",
       R"({"ids":["a"],"count":1,"sample":[],"shown":true})"},
      // A whole number written with a fraction or an exponent still fills an integer field.
      {"velko_rate", R"({"ids":["a"],"rating":4.0})", R"(photo.rate {"ids":["a"],"rating":4})",
       R"({"updated":1,"skipped":[]})"},
      // Edits are sent in the agent's name, without a preview unless asked for.
      {"velko_edit_set",
       R"({"id":"A","ops":[{"kind":"exposure","scalar":0.7},)"
       R"({"kind":"crop","rect":[[0,0],[1,0.5]]}],"expectedVersion":4.9})",
       R"(edit.set {"id":"A","ops":[{"kind":"exposure","scalar":0.7},)"
       R"({"kind":"crop","rect":[[0,0],[1,0.5]]}],"maskOps":[],"expectedVersion":4,)"
       R"("agent":"claude-mcp","preview":false})",
       kEditSetReply},
      // A preview puts the image first and says when it is approximated.
      {"velko_preview_render", R"({"id":"A","longEdge":300.7})",
       R"(preview.render {"id":"A","longEdge":300})",
       R"({"pngBase64":"UE5H","width":512,"height":384,"appliedStackVersion":7,)"
       R"("basedOnOriginal":false})",
       R"j({"content":[{"type":"image","data":"UE5H","mimeType":"image/png"},)j"
       R"j({"type":"text","text":"512\u00d7384, stack version 7 (approximated on )j"
       R"j(the local derivative \u2014 the iCloud original isn't downloadable )j"
       R"j(right now; detail sliders read slightly stronger than a real commit )j"
       R"j(will)"}],"isError":false})j"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    RecordingCaller caller;
    caller.answer(c.reply);
    const ToolResult result = invokeTool(c.tool, c.arguments, caller);
    EXPECT_EQ(caller.sent(), std::vector<std::string>{c.sent});
    EXPECT_EQ(json::toCompact(result),
              c.shown ? json::toCompact(json::parse(c.shown))
                      : json::toCompact(textResult(pretty(c.reply), false)));
  }
}

// How a handler refuses: the exception it throws (which the dispatcher turns into an error result)
// or the error result it returns, with its text; and nothing is sent.
TEST(ToolHandlers, BadArgumentsAreRefusedBeforeAnythingIsSent) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* refusal;   // the start of how it is refused
  } cases[] = {
      // Arguments that do not decode into the request's record.
      {"velko_make_movie", nullptr, "DecodeError: arguments.ids: missing required key"},
      {"velko_rate", "[]", "DecodeError: arguments: expected an object, found array"},
      {"velko_query", R"({"dateFrom":"yesterday"})", "DecodeError: arguments.dateFrom: "},
      {"velko_rate", R"({"ids":["a"],"rating":4.5})",
       "DecodeError: arguments.rating: expected an integer, found a number with a fraction or "
       "exponent"},
      {"velko_edit_set", R"({"id":"A","ops":[{"kind":"exposur","scalar":1}]})",
       "DecodeError: arguments.ops[0].kind: unknown kind"},
      // The editing tools need the photo's id, as a string.
      {"velko_edit_commit", nullptr, "ToolError: id is required"},
      {"velko_preview_render", R"({"id":7})", "ToolError: id is required"},
      {"velko_mask", R"({"id":"A","action":"toggle"})",
       "ToolError: action must be add|set|enable|disable|remove"},
      {"velko_mask", R"({"id":"A","type":"Radial"})",
       "ToolError: type must be subject|people|radial|linear|luminance|color"},
      {"velko_mask", R"({"id":"A","action":"remove","mask":"not-a-uuid"})",
       "ToolError: 'mask' (uuid) is required for action 'remove'"},
      {"velko_mask",
       R"({"id":"A","action":"set","mask":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","adjustments":{"bogus":1}})",
       "ToolError: 'set' needs an adjustments object"},
      // The look tools and the tools that work on files answer with an error result.
      {"velko_crop", R"({"id":"A","x":0,"y":0,"width":1})",
       "result: velko_crop needs {id, x, y, width, height} (0\u20131)"},
      {"velko_lut", R"({"id":"A"})", "result: velko_lut needs {id, lut}"},
      {"velko_point_color", R"({"id":"A","targets":[{"targetHue":0.6,"targetSat":0.5}]})",
       "result: each target needs targetHue, targetSat, targetLum (0\u20131)"},
      {"velko_export", R"({"ids":[7,null],"directory":"/x"})",
       "result: velko_export needs a non-empty ids array"},
      {"velko_export", R"({"ids":["a"],"directory":""})",
       "result: velko_export needs a destination directory"},
      {"velko_import", R"({"paths":"/a.jpg"})",
       "result: velko_import needs a non-empty paths array"},
      {"velko_find_similar", R"({"id":42})",
       "result: velko_find_similar needs one of: path, image, or id"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    RecordingCaller caller;
    std::string how;
    try {
      const ToolResult result = invokeTool(c.tool, c.arguments, caller);
      how = (result.at("isError") == true ? "result: " : "accepted: ") + textAt(result);
    } catch (const json::DecodeError& e) {
      how = std::string("DecodeError: ") + e.what();
    } catch (const ToolError& e) {
      how = std::string("ToolError: ") + e.what();
    }
    EXPECT_EQ(how.rfind(c.refusal, 0), 0u) << how;
    EXPECT_TRUE(caller.requests.empty()) << "sent " << caller.sent().front();
  }
}

// The focused photo's preview follows the context (clients.session checks that); a preview that
// fails is left out, and with nothing in focus the assistant is told what to do.
TEST(ToolHandlers, ContextWithoutAPreview) {
  const char* focused = R"({"editorOpen":true,"editorPhotoID":"p1","focusID":"p1",)"
                        R"("selectionIDs":["p1"],"focusStack":{"values":{},"version":3}})";
  RecordingCaller caller;
  caller.answer(focused).fail(ipc::ClientError::connectionClosed());
  ToolResult result = invokeTool("velko_context", R"({"ignored":true})", caller);
  EXPECT_EQ(caller.sent(), (std::vector<std::string>{
                               "app.context", R"(preview.render {"id":"p1","longEdge":384})"}));
  EXPECT_EQ(json::toCompact(result), json::toCompact(textResult(pretty(focused), false)));

  caller.answer(R"({"editorOpen":false,"selectionIDs":[]})");
  result = invokeTool("velko_context", nullptr, caller);
  EXPECT_EQ(caller.requests.size(), 3u);
  EXPECT_EQ(textAt(result, 1), "No photo is in focus \u2014 nothing selected and the editor is "
                               "closed. Ask the user to select or open a photo, or use velko_list.");
}

// ---- Editing tools ----

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

// The look tools: the ops they send (after the lut.list lookup of velko_lut) and the summary shown
// when a preview was asked for, the reply as JSON otherwise. The crop rectangle is normalised into
// the photo; LUT names from any script match whatever their case, ids only as written.
TEST(EditingTools, LookToolsSendTheirOpsAndSummarise) {
  constexpr const char* kLuts =
      R"({"luts":[{"id":"L1","name":"Été Ärger"},{"id":"l2","name":"Σκιά"}]})";
  const std::string replyShown = pretty(kEditSetReply);
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
      EXPECT_EQ(json::toCompact(caller.requests.back().params->at("ops")), c.ops);
    }
    EXPECT_EQ(textAt(result, 0), c.shown);
    EXPECT_EQ(result.at("isError"), c.ops == nullptr);
  }
}

TEST(ToolSupport, NumberArgumentsReadNumbersAndBooleansOnly) {
  struct Case {
    const char* json;
    std::optional<std::int64_t> integer;
    std::optional<double> number;
  } cases[] = {
      {"-0.25", 0, -0.25},
      {"-3.9", -3, -3.9},
      {"true", 1, 1.0},
      {"\"3\"", std::nullopt, std::nullopt},
      {"18446744073709551615", INT64_MAX, 18446744073709551615.0},
      {"-1e300", INT64_MIN, -1e300},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    const json::Value v = json::parse(c.json);
    EXPECT_EQ(intArg(&v), c.integer);
    EXPECT_EQ(doubleArg(&v), c.number);
  }
  EXPECT_EQ(intArg(nullptr), std::nullopt);
  EXPECT_EQ(wholeNumbersAsIntegers(json::parse(R"({"a":[1.0,1.5,{"b":-0.0}],"c":"2.0"})")),
            json::parse(R"({"a":[1,1.5,{"b":0}],"c":"2.0"})"));
}

TEST(ToolSupport, JsonTextResultReportsEncodingFailure) {
  json::Object record;
  record.emplace("x", std::nan(""));
  EXPECT_EQ(json::toCompact(jsonTextResult(record)),
            R"({"content":[{"type":"text","text":"encoding failed"}],"isError":true})");
}

// The text quotes the argument, or says what to do without it; arguments of the wrong shape count
// as absent. The descriptions are pinned by docs/tools.md, the message's form by clients.session.
TEST(Prompts, RenderQuotesTheArgumentOrUsesTheDefault) {
  struct Case {
    const char* prompt;
    const char* arguments; // null: no arguments key
    const char* opening;
  } cases[] = {
      {"velko_cull", R"({"scope":"yesterday"})",
       "Help me cull and deliver \"yesterday\" in velko. Drive the app so I SEE each step \u2014 "
       "don't just describe it."},
      {"velko_cull", nullptr,
       "Help me cull and deliver the photos I mean (ask if it's unclear) in velko. Drive the app"},
      {"velko_cull", R"(["yesterday"])", "Help me cull and deliver the photos I mean (ask if"},
      {"velko_edit", R"({"look":"warm film"})",
       "Edit the photo I'm working on in velko to achieve \"warm film\". Follow this loop exactly "
       "\u2014 do not skip steps"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.prompt) + " " + (c.arguments ? c.arguments : "(none)"));
    const json::Value args = c.arguments ? json::parse(c.arguments) : json::Value();
    std::optional<json::Object> rendered = renderPrompt(c.prompt, c.arguments ? &args : nullptr);
    ASSERT_TRUE(rendered);
    const std::string text(rendered->at("messages").at(0).at("content").at("text").as_string());
    EXPECT_EQ(text.rfind(c.opening, 0), 0u) << text.substr(0, 120);
  }
  EXPECT_FALSE(renderPrompt("velko_Cull", nullptr));
}

} // namespace
} // namespace velko::server
