// Whole-stack operations: a last-writer-wins merge of two independently edited copies, a content
// comparison that ignores the version, and presets (the look of a stack without its geometry).
#pragma once

#include "core/EditStack.h"

namespace velko::core {

/// `a` merged with `b`: per kind the later value (`a` keeps ties), `a`'s masks then `b`'s masks
/// with new ids, and a version one past the larger of the two.
EditStack merged(const EditStack& a, const EditStack& b);

/// Equal values and masks in order; versions are not compared.
bool sameContent(const EditStack& a, const EditStack& b);

/// A copy without the geometry and frame kinds, masks kept, version 0.
EditStack presetSubset(const EditStack& stack);

/// Takes every value the preset carries into `stack` (replacing those kinds, leaving the rest)
/// and advances `version` by exactly 1.
void applyPreset(EditStack& stack, const EditStack& preset);

} // namespace velko::core
