// Records written straight to pretty text must read exactly as their encoded values do: the
// assistant's texts, and the tool reference built from them, depend on it.
#include "json/RecordText.h"

#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"
#include "protocol/LibraryRecords.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

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

} // namespace
} // namespace velko::protocol
