#include "core/EditStackMerge.h"

#include <algorithm>

namespace velko::core {

EditStack merged(const EditStack& a, const EditStack& b) {
  EditStack out;
  out.values = a.values;
  for (const auto& [kind, theirs] : b.values) {
    auto [it, inserted] = out.values.try_emplace(kind, theirs);
    if (!inserted && theirs.lastModifiedAt > it->second.lastModifiedAt) {
      it->second = theirs;
    }
  }

  // Masks carry no timestamp, so a mask both sides hold is taken from `a` as it is.
  std::vector<LocalMask> masks = a.masks();
  for (const LocalMask& m : b.masks()) {
    bool known = std::any_of(a.masks().begin(), a.masks().end(),
                             [&](const LocalMask& mine) { return mine.id == m.id; });
    if (!known) {
      masks.push_back(m);
    }
  }
  out.setMasks(std::move(masks));

  // Newer than both inputs, so a client holding either old version gets a conflict.
  out.version = nextVersion(std::max(a.version, b.version));
  return out;
}

bool sameContent(const EditStack& a, const EditStack& b) {
  return a.values == b.values && a.masks() == b.masks();
}

EditStack presetSubset(const EditStack& stack) {
  EditStack out = stack;
  for (AdjustmentKind k : EditStack::geometryKinds()) {
    out.values.erase(k);
  }
  out.version = 0;
  return out;
}

void applyPreset(EditStack& stack, const EditStack& preset) {
  const std::int64_t next = nextVersion(stack.version);
  for (const auto& [kind, value] : preset.values) {
    stack.values.insert_or_assign(kind, value);
  }
  stack.version = next;
}

} // namespace velko::core
