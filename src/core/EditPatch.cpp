#include "core/EditPatch.h"

namespace velko::core {

int valueCount(const EditPatchOp& op) {
  return int(op.scalar.has_value()) + int(op.boolean.has_value()) + int(op.curve.has_value()) +
         int(op.rect.has_value()) + int(op.string.has_value()) + int(op.pointColors.has_value()) +
         int(op.remove.value_or(false));
}

std::optional<AdjustmentPayload> payloadOf(const EditPatchOp& op) {
  if (op.scalar) {
    return AdjustmentPayload(std::in_place_type<double>, *op.scalar);
  }
  if (op.boolean) {
    return AdjustmentPayload(std::in_place_type<bool>, *op.boolean);
  }
  if (op.curve) {
    return AdjustmentPayload(*op.curve);
  }
  if (op.rect) {
    return AdjustmentPayload(*op.rect);
  }
  if (op.string) {
    return AdjustmentPayload(*op.string);
  }
  if (op.pointColors) {
    return AdjustmentPayload(*op.pointColors);
  }
  return std::nullopt;
}

EditPatchError EditPatchError::malformedOp(AdjustmentKind kind) {
  EditPatchError e(Kind::MalformedOp, "malformed edit operation for \"" +
                                          std::string(rawValue(kind)) +
                                          "\": expected exactly one value");
  e.adjustmentKind_ = kind;
  return e;
}

EditPatchError EditPatchError::versionMismatch(std::int64_t expected, std::int64_t actual) {
  EditPatchError e(Kind::VersionMismatch, "version mismatch: expected " + std::to_string(expected) +
                                              ", stack is at " + std::to_string(actual));
  e.expected_ = expected;
  e.actual_ = actual;
  return e;
}

EditPatchError EditPatchError::malformedMaskOp(MaskPatchOp::Action action) {
  EditPatchError e(Kind::MalformedMaskOp, "malformed mask operation \"" +
                                              std::string(json::enumName(action)) +
                                              "\": a required field is missing");
  e.action_ = action;
  return e;
}

EditPatchError EditPatchError::maskNotFound(const Uuid& id) {
  EditPatchError e(Kind::MaskNotFound, "mask not found: " + id.str());
  e.maskId_ = id;
  return e;
}

std::vector<Uuid> EditStack::apply(const std::vector<EditPatchOp>& ops,
                                   const std::vector<MaskPatchOp>& maskOps,
                                   const EditOrigin& origin, json::Date at,
                                   std::optional<std::int64_t> expectedVersion) {
  if (expectedVersion && *expectedVersion != version) {
    throw EditPatchError::versionMismatch(*expectedVersion, version);
  }
  for (const EditPatchOp& op : ops) {
    if (valueCount(op) != 1) {
      throw EditPatchError::malformedOp(op.kind);
    }
  }
  for (const MaskPatchOp& op : maskOps) {
    op.validate();
  }

  // Values are stored as given: range advice belongs to the tools, and a newer client may write
  // values this model does not expect.
  for (const EditPatchOp& op : ops) {
    if (op.remove.value_or(false)) {
      clear(op.kind);
    } else {
      set(op.kind, *payloadOf(op), origin, at);
    }
  }
  return applyMaskOps(maskOps);
}

std::vector<Uuid> applyAtomically(EditStack& stack, const std::vector<EditPatchOp>& ops,
                                  const std::vector<MaskPatchOp>& maskOps, const EditOrigin& origin,
                                  json::Date at, std::optional<std::int64_t> expectedVersion) {
  EditStack copy = stack;
  std::vector<Uuid> created = copy.apply(ops, maskOps, origin, at, expectedVersion);
  stack = std::move(copy);
  return created;
}

} // namespace velko::core
