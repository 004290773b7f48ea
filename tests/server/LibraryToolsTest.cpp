// Library, selection and organisation handlers against a recording Caller: what request goes
// out for given arguments, and what the assistant reads back.
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "server/ToolSupport.h"
#include "server/ToolTable.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

using testing::RecordingCaller;

ToolResult invoke(std::string_view tool, const char* arguments, RecordingCaller& caller) {
  const Tool* row = findTool(tool);
  if (row == nullptr) {
    throw std::runtime_error("no tool " + std::string(tool));
  }
  ToolArgs args;
  if (arguments != nullptr) {
    args = json::parse(arguments);
  }
  return row->invoke(args, caller);
}

std::string pretty(const char* text) {
  return json::toPretty(json::parse(text));
}

// Argument-record tools and list tools: the request is the decoded arguments re-encoded, and the
// reply comes back as pretty, key-sorted JSON.
TEST(LibraryAndOrganisationTools, SendDecodedArgumentsAndShowTheReply) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* sent;
    const char* reply;
  } cases[] = {
      // Library and selection.
      {"velko_list", R"({"limit":5,"cursor":100,"extra":true})",
       R"(library.list {"limit":5,"cursor":100})", R"({"photos":[],"nextCursor":105})"},
      {"velko_selection", R"({"ignored":1})", "library.selection",
       R"({"ids":["a","b"],"primary":"a"})"},
      {"velko_get", R"({"id":"p1"})", R"(photo.get {"id":"p1"})",
       R"({"photo":{"id":"p1","pixelWidth":4,"pixelHeight":3,"isFavorite":true,"isHidden":false,)"
       R"("durationSeconds":0,"playbackStyle":1,"sourceType":1,"representsBurst":false,)"
       R"("canEditContent":true,"canEditProperties":true,"canDelete":true,"hasAdjustments":true},)"
       R"("metadata":{"rating":4,"flag":1,"colorLabel":0,"hasEditStack":true}})"},
      {"velko_exif", R"({"id":"p1"})", R"(photo.exif {"id":"p1"})",
       R"({"captureDate":"2026-07-12T08:30:00Z","cameraMake":"Acme","iso":200,"aperture":2.8,)"
       R"("pixelWidth":6000,"pixelHeight":4000})"},
      {"velko_query",
       R"({"minRating":7,"dateFrom":"2026-07-12T00:00:00+02:00","show":true,"title":"T"})",
       R"(library.query {"dateFrom":"2026-07-11T22:00:00Z","minRating":7,"show":true,"title":"T"})",
       R"({"ids":["a"],"count":1,"sample":[],"shown":true})"},
      {"velko_show", R"({"ids":["b","a"],"title":"Sharp"})",
       R"(library.show {"ids":["b","a"],"title":"Sharp"})", R"({"shown":2,"title":"Sharp"})"},
      {"velko_select", R"({"ids":["a"]})", R"(library.select {"ids":["a"]})",
       R"({"selected":1,"primary":"a"})"},
      {"velko_open", R"({"open":false})", R"(editor.open {"open":false})", R"({"open":false})"},
      // Updated-count family.
      {"velko_rate", R"({"ids":[],"rating":3})", R"(photo.rate {"ids":[],"rating":3})",
       R"({"updated":0,"skipped":[]})"},
      // A whole number written with a fraction or an exponent still fills an integer field.
      {"velko_rate", R"({"ids":["a"],"rating":4.0})", R"(photo.rate {"ids":["a"],"rating":4})",
       R"({"updated":1,"skipped":[]})"},
      {"velko_flag", R"({"ids":["a"],"flag":"maybe"})",
       R"(photo.flag {"ids":["a"],"flag":"maybe"})", R"({"updated":0,"skipped":["a"]})"},
      {"velko_label", R"({"ids":["a"],"color":"red"})",
       R"(photo.label {"ids":["a"],"color":"red"})", R"({"updated":1,"skipped":[]})"},
      {"velko_delete", R"({"ids":["a","b"]})", R"(photo.delete {"ids":["a","b"]})",
       R"({"updated":2,"skipped":[]})"},
      // List family: arguments are not read, no params are sent.
      {"velko_collection_list", R"({"x":1})", "collection.list",
       R"({"collections":[{"id":"c1","name":"Best","count":3,"isSmart":false}]})"},
      {"velko_album_list", nullptr, "album.list",
       R"({"albums":[{"id":"al","title":"Trip","count":9}]})"},
      // Create family.
      {"velko_collection_create", R"({"name":"Best","ids":["a"]})",
       R"(collection.create {"name":"Best","ids":["a"]})",
       R"({"id":"c1","name":"Best","count":1,"isSmart":false})"},
      // Membership family: by id, by name, or neither (the application's to refuse).
      {"velko_collection_add", R"({"ids":["a"]})", R"(collection.add {"ids":["a"]})",
       R"({"updated":1,"skipped":[]})"},
      {"velko_keyword_assign", R"({"name":"dog","ids":["a"]})",
       R"(keyword.assign {"name":"dog","ids":["a"]})", R"({"updated":1,"skipped":[]})"},
      {"velko_album_add", R"({"name":"Trip","ids":["a"]})",
       R"(album.add {"name":"Trip","ids":["a"]})", R"({"updated":1,"skipped":[]})"},
      // Annotations and geotags.
      {"velko_annotate_pending", R"({"limit":2.0})", R"(annotate.pending {"limit":2})",
       R"({"ids":["a","b"],"remaining":40})"},
      {"velko_annotate_set",
       R"({"id":"a","annotation":{"caption":"A dog.","setting":"outdoor"},"model":"m"})",
       R"(annotate.set {"id":"a","annotation":{"caption":"A dog.","longDescription":"","keywords":[],)"
       R"("subjects":[],"setting":"outdoor","palette":[]},"model":"m"})",
       R"({"annotation":{"caption":"A dog.","longDescription":"","keywords":["dog"],"subjects":[],)"
       R"("setting":"outdoor","palette":[]}})"},
      {"velko_geotag", R"({"ids":["a"],"latitude":4.15})",
       R"(photo.geotag {"ids":["a"],"latitude":4.15})",
       R"({"updated":1,"skipped":[],"latitude":4.15})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    RecordingCaller caller;
    caller.answer(c.reply);
    const ToolResult result = invoke(c.tool, c.arguments, caller);
    EXPECT_EQ(caller.sent(), std::vector<std::string>{c.sent});
    EXPECT_EQ(json::toCompact(result), json::toCompact(textResult(pretty(c.reply), false)));
  }
}

TEST(LibraryAndOrganisationTools, ArgumentsThatDoNotDecodeSendNothing) {
  struct Case {
    const char* tool;
    const char* arguments;
    const char* error;
  } cases[] = {
      {"velko_get", "{}", "arguments.id: missing required key"},
      {"velko_exif", R"({"id":7})", "arguments.id: expected a string, found number"},
      {"velko_list", R"({"limit":"5"})", "arguments.limit: expected an integer, found string"},
      {"velko_query", R"({"dateFrom":"yesterday"})", "arguments.dateFrom: "},
      {"velko_rate", R"({"ids":["a"],"rating":4.5})",
       "arguments.rating: expected an integer, found a number with a fraction or exponent"},
      {"velko_rate", R"({"ids":["a"],"rating":1e19})", "arguments.rating: integer out of range"},
      {"velko_rate", R"({"ids":["a", 2],"rating":1})",
       "arguments.ids[1]: expected a string, found number"},
      {"velko_annotate_set", R"({"id":"a"})", "arguments.annotation: missing required key"},
      {"velko_annotate_set", R"({"id":"a","annotation":{"keywords":["x"]}})",
       "arguments.annotation.caption: missing required key"},
      {"velko_annotate_set", R"({"id":"a","annotation":{"caption":"c","setting":"attic"}})",
       "arguments.annotation.setting: unknown value \"attic\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + (c.arguments ? c.arguments : "(none)"));
    RecordingCaller caller;
    try {
      invoke(c.tool, c.arguments, caller);
      ADD_FAILURE() << "no error";
    } catch (const json::DecodeError& e) {
      EXPECT_EQ(std::string(e.what()).rfind(c.error, 0), 0u) << e.what();
    }
    EXPECT_TRUE(caller.requests.empty());
  }
}

TEST(LibraryAndOrganisationTools, PingChecksTheProtocolVersion) {
  RecordingCaller caller;
  caller.answer(
      R"({"appVersion":"2","buildStamp":"b","protocolVersion":2,"libraryAuthorized":true,"photoCount":1})");
  try {
    invoke("velko_ping", R"({"x":1})", caller);
    ADD_FAILURE() << "no error";
  } catch (const ipc::ClientError& e) {
    EXPECT_EQ(e.kind(), ipc::ClientError::Kind::ProtocolMismatch);
    EXPECT_STREQ(
        e.what(),
        "protocol mismatch: app speaks v2, this tool speaks v1 \u2014 update the older side");
  }
  EXPECT_EQ(caller.sent(), std::vector<std::string>{"system.ping"});
}

TEST(LibraryAndOrganisationTools, ClientErrorsPassThroughUnchanged) {
  RecordingCaller caller;
  caller.fail(ipc::ClientError::rpc({-32001, "store unavailable"}));
  EXPECT_THROW(invoke("velko_rate", R"({"ids":["a"],"rating":2})", caller), ipc::ClientError);
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

TEST(LibraryAndOrganisationTools, ContextAttachesAPreviewOfTheFocusedPhoto) {
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
    const ToolResult result = invoke("velko_context", R"({"ignored":true})", caller);
    EXPECT_EQ(caller.sent(), c.sent);
    json::Object expected{{"content", c.content}, {"isError", false}};
    EXPECT_EQ(json::toCompact(result), json::toCompact(expected));
  }
}

TEST(LibraryAndOrganisationTools, ContextFailsWhenTheContextRequestFails) {
  RecordingCaller caller;
  caller.fail(ipc::ClientError::appNotRunning("/h/.velko/ipc.sock"));
  EXPECT_THROW(invoke("velko_context", nullptr, caller), ipc::ClientError);
  EXPECT_EQ(caller.requests.size(), 1u);
}

} // namespace
} // namespace velko::server
