// The tools' and the application's tests pin most records' keys from either side (the server's
// handler tests the unfocused context and the edit results); these are the forms they do not
// reach.
#include "json/Writer.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"
#include "protocol/LibraryRecords.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using namespace std::chrono_literals;
using std::chrono::July;
using std::chrono::sys_days;

// Decodes `text` into T and compares with `expected`, then encodes `expected` and compares with
// `text` character for character, so a mistyped key or a wrong key order shows up.
template <class T> void expectGolden(const char* name, const std::string& text, const T& expected) {
  SCOPED_TRACE(name);
  EXPECT_EQ(json::decodeAs<T>(json::parse(text)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), text);
}

const char* const kSummaryJson =
    R"({"id":"X/L0/001","pixelWidth":4032,"pixelHeight":3024,)"
    R"("creationDate":"2026-07-12T09:15:00Z","isFavorite":false,"isHidden":false,)"
    R"("durationSeconds":0,"playbackStyle":1,"sourceType":1,"representsBurst":false,)"
    R"("canEditContent":true,"canEditProperties":true,"canDelete":true,"hasAdjustments":false})";

core::PhotoSummary summary() {
  core::PhotoSummary s;
  s.id = "X/L0/001";
  s.pixelWidth = 4032;
  s.pixelHeight = 3024;
  s.creationDate = json::Date{sys_days{2026y / July / 12}} + 9h + 15min;
  s.playbackStyle = core::PhotoPlaybackStyle::Image;
  s.sourceType = core::PhotoSourceType::UserLibrary;
  s.canEditContent = s.canEditProperties = s.canDelete = true;
  return s;
}

TEST(Records, OpenEditorContextMatchesItsLiteral) {
  core::PhotoAIAnnotation annotation;
  annotation.caption = "A dog";
  core::EditStack stack;
  stack.version = 3;
  const std::string id = "X/L0/001";
  expectGolden(
      "editor open",
      R"({"editorOpen":true,"editorPhotoID":"X/L0/001","focusID":"X/L0/001",)"
      R"("selectionIDs":["X/L0/001"],"primarySelectionID":"X/L0/001","focus":)" +
          std::string(kSummaryJson) +
          R"(,"focusMetadata":{"rating":4,"flag":1,"colorLabel":2,"hasEditStack":true},)"
          R"("focusStack":{"values":{},"version":3},"focusAnnotation":{"caption":"A dog",)"
          R"("longDescription":"","keywords":[],"subjects":[],"palette":[]}})",
      ContextResult{
          true, id, id, {id}, id, summary(), PhotoMetadataDTO{4, 1, 2, true}, stack, annotation});
}

// Required members refuse null; the records check only types and presence.
TEST(Records, DecodeChecksTypesAndPresenceOnly) {
  EXPECT_THROW(json::decodeAs<ExportRenderResult>(json::parse(
                   R"({"path":"/p","format":"jpeg","suggestedFilename":null,"bytes":1})")),
               json::DecodeError);
  try {
    json::decodeAs<ContextResult>(json::parse(R"({"editorOpen":true,"selectionIDs":[],)"
                                              R"("focusMetadata":{"rating":1,"flag":0,)"
                                              R"("hasEditStack":false}})"),
                                  json::Path("result"));
    ADD_FAILURE() << "decoded without colorLabel";
  } catch (const json::DecodeError& e) {
    EXPECT_STREQ(e.what(), "result.focusMetadata.colorLabel: missing required key");
  }
}

} // namespace
} // namespace velko::protocol
