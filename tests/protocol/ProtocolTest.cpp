// Framing, JSON-RPC envelopes and records. The tools' and the application's tests pin most
// records' keys from either side (the server's handler tests the unfocused context and the edit
// results); these are the forms they do not reach.
#include "core/PhotoAIAnnotation.h"
#include "json/Errors.h"
#include "json/RecordText.h"
#include "json/Writer.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"
#include "protocol/FrameCodec.h"
#include "protocol/IPCEndpoint.h"
#include "protocol/LibraryRecords.h"
#include "protocol/Rpc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using namespace std::chrono_literals;
using std::chrono::May;
using std::chrono::sys_days;
using ::testing::ThrowsMessage;
using namespace rpc;

// Decodes `text` into T and compares with `expected`, then encodes `expected` and compares with
// `text` character for character, so a mistyped key or a wrong key order shows up.
template <class T> void expectGolden(const char* name, const std::string& text, const T& expected) {
  SCOPED_TRACE(name);
  EXPECT_EQ(json::decodeAs<T>(json::parse(text)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), text);
}

const char* const kSummaryJson =
    R"({"id":"X/L0/001","pixelWidth":4032,"pixelHeight":3024,)"
    R"("creationDate":"2024-05-01T08:30:00Z","modificationDate":"2024-05-02T00:00:00Z",)"
    R"("formatLabel":"HEIC","latitude":4.142,"longitude":-73.6266,"isFavorite":true,)"
    R"("isHidden":false,"durationSeconds":12.5,"playbackStyle":5,"sourceType":3,)"
    R"("burstIdentifier":"B1","representsBurst":true,"canEditContent":true,)"
    R"("canEditProperties":false,"canDelete":true,"hasAdjustments":true,)"
    R"("cloudIdentifier":"C1"})";

const json::Date kMay1At0830 = json::Date{sys_days{2024y / May / 1}} + 8h + 30min;

// The summary and the annotation with every optional member present (the codec's own test
// leaves absent ones out).
TEST(Records, ContextExifAndEndpointFileMatchTheirLiterals) {
  const core::PhotoSummary summary{
      "X/L0/001", 4032, 3024, kMay1At0830, json::Date{sys_days{2024y / May / 2}}, "HEIC", 4.142,
      -73.6266, true, false, 12.5, core::PhotoPlaybackStyle::VideoLooping,
      core::PhotoSourceType::ITunesSynced, "B1", true, true, false, true, true, "C1"};
  const core::PhotoAIAnnotation annotation{
      .caption = "A dog", .setting = core::PhotoSetting::Outdoor, .peopleCount = 2,
      .keeperScore = 0.5};
  const core::EditStack stack{.version = 3};
  const std::string id = "X/L0/001";
  expectGolden(
      "editor open",
      R"({"editorOpen":true,"editorPhotoID":"X/L0/001","focusID":"X/L0/001",)"
      R"("selectionIDs":["X/L0/001"],"primarySelectionID":"X/L0/001","focus":)" +
          std::string(kSummaryJson) +
          R"(,"focusMetadata":{"rating":4,"flag":1,"colorLabel":2,"hasEditStack":true},)"
          R"("focusStack":{"values":{},"version":3},"focusAnnotation":{"caption":"A dog",)"
          R"("longDescription":"","keywords":[],"subjects":[],"setting":"outdoor",)"
          R"("peopleCount":2,"palette":[],"keeperScore":0.5}})",
      ContextResult{
          true, id, id, {id}, id, summary, PhotoMetadataDTO{4, 1, 2, true}, stack, annotation});
  expectGolden("exif",
               R"({"captureDate":"2024-05-01T08:30:00Z","cameraMake":"Fujifilm",)"
               R"("cameraModel":"X-T5","lens":"XF 35mm","iso":400,)"
               R"("shutterSeconds":0.004,"aperture":2.8,"focalLengthMM":35,)"
               R"("pixelWidth":7728,"pixelHeight":5152,"formatLabel":"RAF",)"
               R"("originalFilename":"DSCF0001.RAF"})",
               core::PhotoInfo{kMay1At0830, "Fujifilm", "X-T5", "XF 35mm", 400, 0.004, 2.8, 35.0,
                               7728, 5152, "RAF", "DSCF0001.RAF"});
  expectGolden("endpoint file",
               R"({"socketPath":"/Users/u/.velko/ipc.sock","protocolVersion":1,)"
               R"("appVersion":"2.3","pid":4242})",
               IPCEndpoint::EndpointInfo{"/Users/u/.velko/ipc.sock", 1, "2.3", 4242});
}

// Required members refuse null; the records check only types and presence.
TEST(Records, DecodeChecksTypesAndPresenceOnly) {
  EXPECT_THROW(json::decodeAs<ExportRenderResult>(json::parse(
                   R"({"path":"/p","format":"jpeg","suggestedFilename":null,"bytes":1})")),
               json::DecodeError);
  const json::Value noColorLabel = json::parse(
      R"({"editorOpen":true,"selectionIDs":[],"focusMetadata":{"rating":1,"flag":0,)"
      R"("hasEditStack":false}})");
  EXPECT_THAT([&] { json::decodeAs<ContextResult>(noColorLabel, json::Path("result")); },
              ThrowsMessage<json::DecodeError>(
                  "result.focusMetadata.colorLabel: missing required key"));
}

TEST(IPCEndpoint, HomePrefersThePasswordEntry) {
  EXPECT_EQ(IPCEndpoint::chooseHome("/Users/u", "/container/home"), "/Users/u");
  EXPECT_EQ(IPCEndpoint::chooseHome("", "/env"), "/env");
  EXPECT_EQ(IPCEndpoint::chooseHome(nullptr, nullptr), "");
}

TEST(Records, AssistantAnnotationErrorsNameTheKeyPath) {
  struct Case {
    const char* name;
    const char* json;
    const char* message;
  } cases[] = {
      {"caption stays required", R"({"keywords":["dog"]})",
       "arguments.annotation.caption: missing required key"},
      {"unknown setting", R"({"caption":"c","setting":"Indoor"})",
       "arguments.annotation.setting: unknown value \"Indoor\""},
      {"not an object", R"("a dog")", "arguments.annotation: expected an object, found string"},
  };
  const json::Path root("arguments");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_THAT(
        [&] { core::decodeAssistantAnnotation(json::parse(c.json), root.key("annotation")); },
        ThrowsMessage<json::DecodeError>(c.message));
  }
}

// Records written straight to pretty text must read exactly as their encoded values do: the
// assistant's texts, and the tool reference built from them, depend on it.
template <class T> void expectSameText(const char* text) {
  SCOPED_TRACE(text);
  const auto record = json::decodeAs<T>(json::parse(text));
  EXPECT_EQ(json::toPrettyText(record), json::toPretty(json::encode(record)));
}

TEST(RecordText, ReadsAsTheEncodedValue) {
  // Escapes, "/" (escaped in pretty text), non-ASCII, optional members absent and present,
  // nested records and arrays, enumerations, dates and a hand-written codec (the stack).
  expectSameText<GetResult>(
      R"({"photo":{"id":"A\"b\\c/d\u0001\u00e9\ud83d\ude00","pixelWidth":1,"pixelHeight":2,)"
      R"("creationDate":"2026-07-12T09:15:00+02:00","latitude":-0.1,"longitude":1e300,)"
      R"("isFavorite":true,"isHidden":false,"durationSeconds":2.5,"playbackStyle":1,)"
      R"("sourceType":1,"representsBurst":false,"canEditContent":true,)"
      R"("canEditProperties":false,"canDelete":true,"hasAdjustments":false},)"
      R"("annotation":{"caption":"Tab\there","longDescription":"","keywords":["a","b/c"],)"
      R"("subjects":[],"setting":"outdoor","peopleCount":0,"palette":[],"keeperScore":0.5}})");
  expectSameText<ListResult>(R"({"photos":[]})");
  expectSameText<SnapshotListResult>(
      R"({"snapshots":[{"name":"x","createdAt":"2026-01-01T00:00:00Z"},)"
      R"({"name":"","createdAt":"1999-12-31T23:59:59Z"}]})");
  expectSameText<EditGetResult>(
      R"({"version":3,"stack":{"values":{"exposure":{"value":1.25,"origin":{"type":"user"}}},)"
      R"("version":3}})");
}

TEST(RecordText, DecodesKeysInAnyOrder) {
  // Decoding tries each field's key at the next position first; other orders must read the same.
  const char* inOrder = R"({"name":"x","createdAt":"2026-01-01T00:00:00Z"})";
  const char* reversed = R"({"createdAt":"2026-01-01T00:00:00Z","extra":1,"name":"x"})";
  EXPECT_EQ(json::decodeAs<SnapshotInfo>(json::parse(reversed)),
            json::decodeAs<SnapshotInfo>(json::parse(inOrder)));
  EXPECT_EQ(json::decodeAs<ListParams>(json::parse(R"({"cursor":5,"limit":2})")),
            (ListParams{2, 5}));
}

/// Matches a call that throws exactly `error`.
auto throwsError(const FrameError& error) {
  return ::testing::Throws<FrameError>(::testing::Eq(error));
}

TEST(FrameCodec, EncodeAppendsOneNewlineWithinTheLimit) {
  EXPECT_EQ(encodeFrame("{\"a\":1}\r"), "{\"a\":1}\r\n");
  const std::string atLimit(kMaxFrameBytes, 'a');
  EXPECT_EQ(encodeFrame(atLimit).size(), atLimit.size() + 1);

  std::string overLimit(kMaxFrameBytes + 1, 'a');
  const auto encodeOverLimit = [&] { encodeFrame(overLimit); };
  EXPECT_THAT(encodeOverLimit, throwsError(FrameError::frameTooLarge(8388609)));
  EXPECT_THAT(encodeOverLimit,
              ThrowsMessage<FrameError>("frame too large: 8388609 bytes (limit 8388608)"));

  EXPECT_THAT([] { encodeFrame("a\nb"); }, throwsError(FrameError::interiorNewline()));
  // The newline test runs first, over the whole payload.
  overLimit.back() = '\n';
  EXPECT_THAT(encodeOverLimit, throwsError(FrameError::interiorNewline()));
}

// fuzz_line_scanner checks the splitting for any chunking, and the client's hostile-application
// test a reply at and one byte past the limit.
TEST(FrameCodec, ScannerLimitsOnlyTheUnterminatedRemainder) {
  // A line far past the limit whose newline is in the same chunk is returned whole.
  const std::string nineMiB(9u << 20, 'z');
  LineScanner scanner;
  const std::vector<std::string> frames = scanner.append(nineMiB + "\n");
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size(), nineMiB.size());

  // A completed line in the chunk that overflows is consumed with the error; the remainder stays.
  LineScanner dropping;
  const std::string overflowing = "done\n" + std::string(kMaxFrameBytes + 10, 'r');
  EXPECT_THAT([&] { dropping.append(overflowing); },
              throwsError(FrameError::frameTooLarge(kMaxFrameBytes + 10)));
  EXPECT_EQ(dropping.bufferedBytes(), static_cast<std::size_t>(kMaxFrameBytes + 10));
  EXPECT_EQ(dropping.scannedBytes(), dropping.bufferedBytes());
}

// The client's tests and the server's binary test read plain results and errors; these are the
// replies that are neither.
TEST(Rpc, DecodesResponseOutcomes) {
  struct Case {
    const char* name;
    const char* line;
    Outcome<json::Value> outcome;
  } cases[] = {
      {"error wins over result",
       R"({"id":1,"result":{"updated":1,"skipped":[]},"error":{"code":-32001,"message":"x"}})",
       RPCError{-32001, "x"}},
      {"neither", R"({"jsonrpc":"2.0","id":1})",
       RPCError{-32603, "response carried neither result nor error"}},
      {"other id accepted", R"({"jsonrpc":"2.0","id":"zz","result":[]})",
       json::Value(json::Array{})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decodeResponse(c.line), c.outcome);
  }
  // Only the response fuzzer reads typed results.
  EXPECT_EQ(std::get<UpdatedResult>(decodeResponse<UpdatedResult>(
                R"({"id":1,"result":{"updated":1,"skipped":["a"]}})")),
            (UpdatedResult{1, {"a"}}));
}

TEST(Rpc, IdsDecodeIntegerFirstThenString) {
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse("7")), RPCID(std::int64_t{7}));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("7")")), RPCID(std::string("7")));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("abc")")), RPCID(std::string("abc")));
  // The string attempt's error is the one reported.
  EXPECT_THAT([] { json::decodeAs<RPCID>(json::parse("1.0"), json::Path("id")); },
              ThrowsMessage<json::DecodeError>(::testing::HasSubstr("id: expected a string")));
}

TEST(Rpc, ApplicationHalfReadsParamsAndWritesRepliesOrFallbacks) {
  EXPECT_EQ(
      decodeParams<RateParams>(
          R"({"jsonrpc":"2.0","id":1,"method":"photo.rate","params":{"ids":["a"],"rating":2}})"),
      (RateParams{{"a"}, 2}));
  EXPECT_EQ(decodeParams<RateParams>(R"({"id":1,"method":"x","params":null})"), std::nullopt);
  // The application's tests read its replies to numbered requests.
  EXPECT_EQ(encodeResult(std::nullopt, json::Value(true)), R"({"jsonrpc":"2.0","result":true})");
  EXPECT_EQ(encodeError(RPCID(std::string("q")), RPCErrorCode::MethodNotFound, "no such method"),
            R"({"jsonrpc":"2.0","id":"q","error":{"code":-32601,"message":"no such method"}})");
  // The reply encoders fall back instead of failing.
  // A non-finite number cannot be written as JSON.
  json::Value nan(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(
      encodeResult(RPCID(std::int64_t{1}), nan),
      R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"result encoding failed"}})");
  // Neither can a message that is not UTF-8; the fallback writes the id as null.
  EXPECT_EQ(encodeError(RPCID(std::int64_t{1}), RPCErrorCode::InternalError, "bad \xff byte"),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encoding failed"}})");
}

} // namespace
} // namespace velko::protocol
