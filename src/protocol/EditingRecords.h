// Parameter and result records of the IPC methods that read, change and reset a photo's edit
// stack (edit.get, edit.set, edit.reset, and snapshot.restore, which answers like edit.get).
// The stack and the patch operations are the edit model's own types, so a request built here is
// exactly what the application applies. The rendering, commit, snapshot, export, look and movie
// records of the same method family live in DeliveryRecords.h, included here for PreviewResult.
#pragma once

#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "json/Codec.h"
#include "protocol/DeliveryRecords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velko::protocol {

struct EditGetParams {
  std::string id;

  static constexpr auto jsonFields() { return std::tuple{json::field("id", &EditGetParams::id)}; }
  friend bool operator==(const EditGetParams&, const EditGetParams&) = default;
};

/// A photo's stack and its current version; also the answer to edit.reset and snapshot.restore.
struct EditGetResult {
  core::EditStack stack;
  std::int64_t version = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("stack", &EditGetResult::stack),
                      json::field("version", &EditGetResult::version)};
  }
  friend bool operator==(const EditGetResult&, const EditGetResult&) = default;
};

/// Changes to one photo's stack, applied atomically by the application.
struct EditSetParams {
  std::string id;
  std::vector<core::EditPatchOp> ops; ///< applied in order
  std::optional<std::vector<core::MaskPatchOp>> maskOps;
  /// Apply only while the stack is still at this version (else error -32000, versionConflict);
  /// callers pass back the version edit.get returned.
  std::optional<std::int64_t> expectedVersion;
  std::optional<std::string> agent;            ///< who makes the change, recorded as provenance
  std::optional<std::string> sessionId;        ///< groups the changes of one working session
  std::optional<bool> preview;                 ///< also render a preview of the result
  std::optional<std::int64_t> previewLongEdge; ///< that preview's long edge, in pixels

  static constexpr auto jsonFields() {
    using P = EditSetParams;
    return std::tuple{
        json::field("id", &P::id),           json::field("ops", &P::ops),
        json::field("maskOps", &P::maskOps), json::field("expectedVersion", &P::expectedVersion),
        json::field("agent", &P::agent),     json::field("sessionId", &P::sessionId),
        json::field("preview", &P::preview), json::field("previewLongEdge", &P::previewLongEdge)};
  }
  friend bool operator==(const EditSetParams&, const EditSetParams&) = default;
};

struct EditSetResult {
  std::int64_t newVersion = 0;
  core::EditStack stack;                ///< after the change
  std::optional<PreviewResult> preview; ///< present when one was asked for

  static constexpr auto jsonFields() {
    return std::tuple{json::field("newVersion", &EditSetResult::newVersion),
                      json::field("stack", &EditSetResult::stack),
                      json::field("preview", &EditSetResult::preview)};
  }
  friend bool operator==(const EditSetResult&, const EditSetResult&) = default;
};

/// edit.reset clears every adjustment and answers with an EditGetResult.
struct EditResetParams {
  std::string id;

  static constexpr auto jsonFields() { return std::tuple{json::field("id", &EditResetParams::id)}; }
  friend bool operator==(const EditResetParams&, const EditResetParams&) = default;
};

} // namespace velko::protocol
