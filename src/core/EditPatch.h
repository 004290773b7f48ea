// Patch operations on an edit stack. An EditPatchOp sets or removes exactly one field; a
// MaskPatchOp adds, changes or removes one local mask. EditStack::apply checks the expected
// version and every operation before it changes anything; EditPatchError names what was wrong.
#pragma once

#include "core/AdjustmentKind.h"
#include "core/AdjustmentValue.h"
#include "core/EditStack.h"
#include "core/LocalMask.h"
#include "core/Uuid.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace velko::core {

/// Sets one field (exactly one of the value members present) or removes it (`remove` true).
struct EditPatchOp {
  AdjustmentKind kind{};
  std::optional<double> scalar;
  std::optional<bool> boolean;
  std::optional<Curve> curve;
  std::optional<Rect> rect;
  std::optional<std::string> string;
  std::optional<std::vector<PointColorTarget>> pointColors;
  std::optional<bool> remove; ///< only true counts as a value

  static constexpr auto jsonFields() {
    using O = EditPatchOp;
    return std::tuple{json::field("kind", &O::kind),
                      json::field("scalar", &O::scalar),
                      json::field("boolean", &O::boolean),
                      json::field("curve", &O::curve),
                      json::field("rect", &O::rect),
                      json::field("string", &O::string),
                      json::field("pointColors", &O::pointColors),
                      json::field("remove", &O::remove)};
  }
  friend bool operator==(const EditPatchOp&, const EditPatchOp&) = default;
};

/// How many values the operation carries; a well-formed operation carries exactly one.
int valueCount(const EditPatchOp& op);

/// The payload an operation stores; absent for a removal or a malformed operation.
std::optional<AdjustmentPayload> payloadOf(const EditPatchOp& op);

struct MaskPatchOp {
  enum class Action : std::uint8_t { Add, SetShape, SetAdjustment, SetEnabled, Remove };

  Action action = Action::Add;
  std::optional<Uuid> id; ///< the target mask; for "add", the new mask's id
  std::optional<MaskShape> shape;
  std::optional<std::string> name;
  std::optional<AdjustmentKind> adjustment;
  std::optional<double> value; ///< absent with "setAdjustment" removes the adjustment
  std::optional<bool> enabled;

  /// Throws EditPatchError malformedMaskOp(action) when a field the action needs is missing.
  void validate() const;

  static constexpr auto jsonFields() {
    using O = MaskPatchOp;
    return std::tuple{json::field("action", &O::action),         json::field("id", &O::id),
                      json::field("shape", &O::shape),           json::field("name", &O::name),
                      json::field("adjustment", &O::adjustment), json::field("value", &O::value),
                      json::field("enabled", &O::enabled)};
  }
  friend bool operator==(const MaskPatchOp&, const MaskPatchOp&) = default;
};

/// Why a patch was refused. The text is for logs; callers map the kind to their own wording.
class EditPatchError : public std::runtime_error {
public:
  enum class Kind { MalformedOp, VersionMismatch, MalformedMaskOp, MaskNotFound };

  static EditPatchError malformedOp(AdjustmentKind kind);
  static EditPatchError versionMismatch(std::int64_t expected, std::int64_t actual);
  static EditPatchError malformedMaskOp(MaskPatchOp::Action action);
  static EditPatchError maskNotFound(const Uuid& id);

  Kind kind() const { return kind_; }
  /// The operation's kind (MalformedOp).
  std::optional<AdjustmentKind> adjustmentKind() const { return adjustmentKind_; }
  /// The caller's expected and the stack's actual version (VersionMismatch).
  std::int64_t expected() const { return expected_; }
  std::int64_t actual() const { return actual_; }
  /// The operation's action (MalformedMaskOp).
  std::optional<MaskPatchOp::Action> action() const { return action_; }
  /// The missing mask (MaskNotFound).
  std::optional<Uuid> maskId() const { return maskId_; }

private:
  EditPatchError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

  Kind kind_;
  std::optional<AdjustmentKind> adjustmentKind_;
  std::int64_t expected_ = 0;
  std::int64_t actual_ = 0;
  std::optional<MaskPatchOp::Action> action_;
  std::optional<Uuid> maskId_;
};

/// Applies the patch to a copy of `stack` and keeps the copy only when every operation
/// succeeded, so no failure leaves a half-applied stack. Returns the ids of created masks.
std::vector<Uuid> applyAtomically(EditStack& stack, const std::vector<EditPatchOp>& ops,
                                  const std::vector<MaskPatchOp>& maskOps, const EditOrigin& origin,
                                  json::Date at, std::optional<std::int64_t> expectedVersion);

} // namespace velko::core

namespace velko::json {

template <> struct EnumNames<core::MaskPatchOp::Action> {
  using A = core::MaskPatchOp::Action;
  static constexpr std::array<std::pair<A, std::string_view>, 5> table = {
      {{A::Add, "add"},
       {A::SetShape, "setShape"},
       {A::SetAdjustment, "setAdjustment"},
       {A::SetEnabled, "setEnabled"},
       {A::Remove, "remove"}}};
};

} // namespace velko::json
