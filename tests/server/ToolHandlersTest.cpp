// Tool handlers against a recording Caller: what request goes out for given arguments, and what
// the assistant reads back. Editing tools with more logic are in EditingToolsTest.cpp.
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "server/ToolSupport.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

using testing::invokeTool;
using testing::RecordingCaller;
using testing::textAt;

std::string pretty(const char* text) {
  return json::toPretty(json::parse(text));
}

// Argument-record tools and list tools: the request is the decoded arguments re-encoded, and the
// reply comes back as pretty, key-sorted JSON.
TEST(ToolHandlers, SendDecodedArgumentsAndShowTheReply) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* sent;
    const char* reply;
  } cases[] = {
      // Keys the record does not have are dropped.
      {"velko_list", R"({"limit":5,"cursor":100,"extra":true})",
       R"(library.list {"limit":5,"cursor":100})", R"({"photos":[],"nextCursor":105})"},
      {"velko_edit_get", R"({"id":"A","extra":1})", R"(edit.get {"id":"A"})",
       R"({"stack":{"values":{},"version":5},"version":5})"},
      // List tools read no arguments and send no params.
      {"velko_selection", R"({"ignored":1})", "library.selection",
       R"({"ids":["a","b"],"primary":"a"})"},
      {"velko_album_list", nullptr, "album.list",
       R"({"albums":[{"id":"al","title":"Trip","count":9}]})"},
      {"velko_get", R"({"id":"p1"})", R"(photo.get {"id":"p1"})",
       R"({"photo":{"id":"p1","pixelWidth":4,"pixelHeight":3,"isFavorite":true,"isHidden":false,)"
       R"("durationSeconds":0,"playbackStyle":1,"sourceType":1,"representsBurst":false,)"
       R"("canEditContent":true,"canEditProperties":true,"canDelete":true,"hasAdjustments":true},)"
       R"("metadata":{"rating":4,"flag":1,"colorLabel":0,"hasEditStack":true}})"},
      // Dates are sent in UTC.
      {"velko_query",
       R"({"minRating":7,"dateFrom":"2026-07-12T00:00:00+02:00","show":true,"title":"T"})",
       R"(library.query {"dateFrom":"2026-07-11T22:00:00Z","minRating":7,"show":true,"title":"T"})",
       R"({"ids":["a"],"count":1,"sample":[],"shown":true})"},
      // A whole number written with a fraction or an exponent still fills an integer field.
      {"velko_rate", R"({"ids":["a"],"rating":4.0})", R"(photo.rate {"ids":["a"],"rating":4})",
       R"({"updated":1,"skipped":[]})"},
      // Names outside the schema's enumeration are the application's to refuse.
      {"velko_flag", R"({"ids":["a"],"flag":"maybe"})",
       R"(photo.flag {"ids":["a"],"flag":"maybe"})", R"({"updated":0,"skipped":["a"]})"},
      // One case for each record on the wire whose keys no other test spells out: the tools
      // that neither the session of tests/clients nor an end-to-end test in tests/app drives.
      {"velko_label", R"({"ids":["a"],"color":"red"})",
       R"(photo.label {"ids":["a"],"color":"red"})", R"({"updated":1,"skipped":[]})"},
      {"velko_geotag", R"({"ids":["a"],"latitude":4.15,"longitude":-73.5,"place":"Lisbon"})",
       R"(photo.geotag {"ids":["a"],"latitude":4.15,"longitude":-73.5,"place":"Lisbon"})",
       R"({"updated":1,"skipped":[],"latitude":4.15})"},
      {"velko_annotate_pending", R"({"limit":2})", R"(annotate.pending {"limit":2})",
       R"({"ids":["a","b"],"remaining":40})"},
      {"velko_snapshot_list", R"({"id":"A"})", R"(snapshot.list {"id":"A"})",
       R"({"snapshots":[{"name":"warm","createdAt":"2026-07-12T08:30:00Z"}]})"},
      {"velko_album_add", R"({"name":"Trip","ids":["a"]})",
       R"(album.add {"name":"Trip","ids":["a"]})", R"({"updated":1,"skipped":[]})"},
      {"velko_open", R"({"open":false})", R"(editor.open {"open":false})", R"({"open":false})"},
      {"velko_video_commit", R"({"id":"V","startSeconds":1.5})",
       R"(video.commit {"id":"V","startSeconds":1.5})", R"({"committed":true,"version":2})"},
      // The assistant's annotation may leave out the text and lists the record requires.
      {"velko_annotate_set",
       R"({"id":"a","annotation":{"caption":"A dog.","setting":"outdoor"},"model":"m"})",
       R"(annotate.set {"id":"a","annotation":{"caption":"A dog.","longDescription":"","keywords":[],)"
       R"("subjects":[],"setting":"outdoor","palette":[]},"model":"m"})",
       R"({"annotation":{"caption":"A dog.","longDescription":"","keywords":["dog"],"subjects":[],)"
       R"("setting":"outdoor","palette":[]}})"},
      {"velko_make_movie", R"({"ids":["a","b"],"name":"Reel"})",
       R"(movie.make {"ids":["a","b"],"name":"Reel"})",
       R"({"id":"M1","name":"Reel","clipCount":2,"durationSeconds":12.5})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    RecordingCaller caller;
    caller.answer(c.reply);
    const ToolResult result = invokeTool(c.tool, c.arguments, caller);
    EXPECT_EQ(caller.sent(), std::vector<std::string>{c.sent});
    EXPECT_EQ(json::toCompact(result), json::toCompact(textResult(pretty(c.reply), false)));
  }
}

/// How a handler refuses `arguments`: the exception it throws (which the dispatcher turns into an
/// error result) or the error result it returns, with its text.
std::string refusal(const char* tool, const char* arguments) {
  RecordingCaller caller;
  std::string how;
  try {
    const ToolResult result = invokeTool(tool, arguments, caller);
    how = (result.at("isError") == true ? "result: " : "accepted: ") + textAt(result);
  } catch (const json::DecodeError& e) {
    how = std::string("DecodeError: ") + e.what();
  } catch (const ToolError& e) {
    how = std::string("ToolError: ") + e.what();
  }
  EXPECT_TRUE(caller.requests.empty()) << "sent " << caller.sent().front();
  return how;
}

TEST(ToolHandlers, BadArgumentsAreRefusedBeforeAnythingIsSent) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* refusal;   // the start of what refusal() says
  } cases[] = {
      // Arguments that do not decode into the request's record.
      {"velko_get", "{}", "DecodeError: arguments.id: missing required key"},
      {"velko_make_movie", nullptr, "DecodeError: arguments.ids: missing required key"},
      {"velko_query", R"({"dateFrom":"yesterday"})", "DecodeError: arguments.dateFrom: "},
      {"velko_rate", R"({"ids":["a"],"rating":4.5})",
       "DecodeError: arguments.rating: expected an integer, found a number with a fraction or "
       "exponent"},
      {"velko_edit_set", R"({"id":"A","ops":[{"kind":"exposur","scalar":1}]})",
       "DecodeError: arguments.ops[0].kind: unknown kind"},
      {"velko_edit_set", R"({"id":"A"})", "DecodeError: arguments.ops: missing value"},
      // The editing tools need the photo's id, as a string.
      {"velko_edit_get", nullptr, "ToolError: id is required"},
      {"velko_edit_reset", R"({"id":7})", "ToolError: id is required"},
      {"velko_edit_commit", nullptr, "ToolError: id is required"},
      {"velko_edit_set", R"({"id":7})", "ToolError: id is required"},
      {"velko_mask", nullptr, "ToolError: id is required"},
      {"velko_preview_render", R"({"id":7})", "ToolError: id is required"},
      {"velko_mask", R"({"id":"A","action":"toggle"})",
       "ToolError: action must be add|set|enable|disable|remove"},
      {"velko_mask", R"({"id":"A","type":"Radial"})",
       "ToolError: type must be subject|people|radial|linear|luminance|color"},
      {"velko_mask", R"({"id":"A","action":"set","adjustments":{"exposure":1}})",
       "ToolError: 'mask' (uuid) is required for action 'set'"},
      {"velko_mask", R"({"id":"A","action":"set","mask":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"})",
       "ToolError: 'set' needs an adjustments object"},
      {"velko_mask",
       R"({"id":"A","action":"set","mask":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","adjustments":{"bogus":1}})",
       "ToolError: 'set' needs an adjustments object"},
      {"velko_mask", R"({"id":"A","action":"remove","mask":"not-a-uuid"})",
       "ToolError: 'mask' (uuid) is required for action 'remove'"},
      // The look tools and the tools that work on files answer with an error result.
      {"velko_crop", R"({"id":"A","x":0,"y":0,"width":1})",
       "result: velko_crop needs {id, x, y, width, height} (0\u20131)"},
      {"velko_lut", R"({"id":"A"})", "result: velko_lut needs {id, lut}"},
      {"velko_point_color", R"({"id":"A","targets":{}})",
       "result: velko_point_color needs {id, targets}"},
      {"velko_point_color", R"({"id":"A","targets":[{"targetHue":0.6,"targetSat":0.5}]})",
       "result: each target needs targetHue, targetSat, targetLum (0\u20131)"},
      {"velko_export", nullptr, "result: velko_export needs a non-empty ids array"},
      {"velko_export", R"({"ids":[7,null],"directory":"/x"})",
       "result: velko_export needs a non-empty ids array"},
      {"velko_export", R"({"ids":["a"]})", "result: velko_export needs a destination directory"},
      {"velko_export", R"({"ids":["a"],"directory":""})",
       "result: velko_export needs a destination directory"},
      {"velko_import", nullptr, "result: velko_import needs a non-empty paths array"},
      {"velko_import", R"({"paths":[5,null]})",
       "result: velko_import needs a non-empty paths array"},
      {"velko_import", R"({"paths":"/a.jpg"})",
       "result: velko_import needs a non-empty paths array"},
      {"velko_find_similar", R"({"id":42})",
       "result: velko_find_similar needs one of: path, image, or id"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    const std::string how = refusal(c.tool, c.arguments);
    EXPECT_EQ(how.rfind(c.refusal, 0), 0u) << how;
  }
}

TEST(ToolHandlers, PingChecksTheProtocolVersion) {
  RecordingCaller caller;
  caller.answer(
      R"({"appVersion":"2","buildStamp":"b","protocolVersion":2,"libraryAuthorized":true,"photoCount":1})");
  try {
    invokeTool("velko_ping", R"({"x":1})", caller);
    ADD_FAILURE() << "no error";
  } catch (const ipc::ClientError& e) {
    EXPECT_EQ(e.kind(), ipc::ClientError::Kind::ProtocolMismatch);
  }
  EXPECT_EQ(caller.sent(), std::vector<std::string>{"system.ping"});
}

// The dispatcher turns these into error results; a handler must not swallow them.
TEST(ToolHandlers, ApplicationFailuresPassUpUnchanged) {
  for (const char* tool : {"velko_rate", "velko_context", "velko_find_similar"}) {
    SCOPED_TRACE(tool);
    RecordingCaller caller;
    caller.fail(ipc::ClientError::rpc({-32001, "store unavailable"}));
    EXPECT_THROW(invokeTool(tool, R"({"ids":["a"],"rating":2,"image":"abc"})", caller),
                 ipc::ClientError);
    EXPECT_EQ(caller.requests.size(), 1u);
  }
}

constexpr const char* kFocusedContext =
    R"({"editorOpen":true,"editorPhotoID":"p1","focusID":"p1","selectionIDs":["p1"],"focusStack":{"values":{},"version":3}})";
constexpr const char* kUnfocusedContext = R"({"editorOpen":false,"selectionIDs":[]})";
constexpr const char* kPreview =
    R"({"pngBase64":"iVBORw0KGgo=","width":384,"height":256,"appliedStackVersion":3,"basedOnOriginal":true})";
constexpr const char* kNoFocus =
    "No photo is in focus \u2014 nothing selected and the editor is closed. "
    "Ask the user to select or open a photo, or use velko_list.";

json::Value textItem(const std::string& text) {
  return json::Object{{"type", "text"}, {"text", text}};
}

TEST(ToolHandlers, ContextAttachesAPreviewOfTheFocusedPhoto) {
  struct Case {
    const char* name;
    const char* context;
    bool previewFails;
    std::vector<std::string> sent;
    json::Array content;
  } cases[] = {
      {"focused photo with its preview",
       kFocusedContext,
       false,
       {"app.context", R"(preview.render {"id":"p1","longEdge":384})"},
       {textItem(pretty(kFocusedContext)),
        json::Object{{"type", "image"}, {"data", "iVBORw0KGgo="}, {"mimeType", "image/png"}}}},
      {"preview failure is dropped",
       kFocusedContext,
       true,
       {"app.context", R"(preview.render {"id":"p1","longEdge":384})"},
       {textItem(pretty(kFocusedContext))}},
      {"nothing in focus",
       kUnfocusedContext,
       false,
       {"app.context"},
       {textItem(pretty(kUnfocusedContext)), textItem(kNoFocus)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingCaller caller;
    caller.answer(c.context);
    if (c.previewFails) {
      caller.fail(ipc::ClientError::connectionClosed());
    } else {
      caller.answer(kPreview);
    }
    const ToolResult result = invokeTool("velko_context", R"({"ignored":true})", caller);
    EXPECT_EQ(caller.sent(), c.sent);
    json::Object expected{{"content", c.content}, {"isError", false}};
    EXPECT_EQ(json::toCompact(result), json::toCompact(expected));
  }
}

} // namespace
} // namespace velko::server
