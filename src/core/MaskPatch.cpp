#include "core/EditPatch.h"

namespace velko::core {

void MaskPatchOp::validate() const {
  bool ok = true;
  switch (action) {
  case Action::Add:
    ok = shape.has_value();
    break;
  case Action::SetShape:
    ok = id && shape;
    break;
  case Action::SetAdjustment:
    ok = id && adjustment;
    break;
  case Action::SetEnabled:
    ok = id && enabled;
    break;
  case Action::Remove:
    ok = id.has_value();
    break;
  }
  if (!ok) {
    throw EditPatchError::malformedMaskOp(action);
  }
}

std::vector<Uuid> EditStack::applyMaskOps(const std::vector<MaskPatchOp>& maskOps) {
  std::vector<Uuid> created;
  for (const MaskPatchOp& op : maskOps) {
    op.validate(); // apply() has checked every operation already; direct callers have not
    switch (op.action) {
    case MaskPatchOp::Action::Add: {
      LocalMask m;
      m.id = op.id ? *op.id : Uuid::random();
      m.name = op.name ? *op.name : std::string(kDefaultMaskName);
      m.shape = op.shape.value();
      created.push_back(m.id);
      addMask(std::move(m));
      break;
    }
    case MaskPatchOp::Action::SetShape: {
      LocalMask m = mask(op.id.value());
      m.shape = op.shape.value();
      updateMask(m);
      break;
    }
    case MaskPatchOp::Action::SetAdjustment: {
      LocalMask m = mask(op.id.value());
      if (op.value) {
        m.adjustments[op.adjustment.value()] = *op.value;
      } else {
        m.adjustments.erase(op.adjustment.value());
      }
      updateMask(m);
      break;
    }
    case MaskPatchOp::Action::SetEnabled: {
      LocalMask m = mask(op.id.value());
      m.isEnabled = op.enabled.value();
      updateMask(m);
      break;
    }
    case MaskPatchOp::Action::Remove:
      mask(op.id.value());
      removeMask(*op.id);
      break;
    }
  }
  return created;
}

} // namespace velko::core
