// A photo's complete non-destructive edit: a map from kind to value with provenance, an ordered
// list of local masks and a version that every change advances. Decoding is lenient on purpose:
// a stack written by a newer build (more kinds, shapes this build cannot read) still loads,
// minus what is not understood. Patch application lives in EditPatch.cpp and MaskPatch.cpp,
// merging in EditStackMerge.h.
#pragma once

#include "core/AdjustmentKind.h"
#include "core/AdjustmentValue.h"
#include "core/LocalMask.h"
#include "core/Uuid.h"
#include "json/Date.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko::core {

struct EditPatchOp;
struct MaskPatchOp;

/// A frame colour, components 0 to 1.
struct FrameColorRGBA {
  double r = 0;
  double g = 0;
  double b = 0;
  double a = 1;

  static const FrameColorRGBA white;
  static const FrameColorRGBA black;

  /// "#RRGGBB", or "#RRGGBBAA" when alpha is below 1; upper-case digits.
  std::string hex() const;
  /// Reads "#RRGGBBAA", "#RRGGBB" or "#RGB" (the "#" optional, blanks around it ignored, either
  /// case); absent for any other length or for a pair that is not hexadecimal.
  static std::optional<FrameColorRGBA> fromHex(std::string_view text);

  friend bool operator==(const FrameColorRGBA&, const FrameColorRGBA&) = default;
};

struct FrameInsets {
  double top = 0;
  double bottom = 0;
  double left = 0;
  double right = 0;

  static const FrameInsets zero;
  bool isZero() const { return top == 0 && bottom == 0 && left == 0 && right == 0; }
  double maxSide() const;

  friend bool operator==(const FrameInsets&, const FrameInsets&) = default;
};

/// The current time at whole-second precision, as stored timestamps carry it.
json::Date nowSeconds();

/// `version` + 1. Throws std::overflow_error at the largest version rather than wrapping to a
/// negative one that no stale-edit check could order; every change checks before it touches
/// the stack, so a refused change leaves it as it was.
std::int64_t nextVersion(std::int64_t version);

class EditStack {
public:
  /// A "frameAspect" of -1 means: use the photo's own aspect.
  static constexpr double frameAspectMatchSource = -1.0;
  /// The allowed white-balance channel gains.
  static constexpr ClosedRange whiteBalanceGainRange = {0.2, 5.0};
  /// The smallest sampled channel value a neutral-point pick accepts.
  static constexpr double whiteBalanceMinimumChannel = 0.02;
  /// Crop, rotation, straightening, flips, perspective, lens distortion and the frame kinds.
  static const std::vector<AdjustmentKind>& geometryKinds();

  /// Values by kind; each value's own kind equals its key.
  std::map<AdjustmentKind, AdjustmentValue> values;
  std::int64_t version = 0;
  /// The masks; kept absent rather than empty.
  std::optional<std::vector<LocalMask>> maskList;

  const std::vector<LocalMask>& masks() const;
  /// Stores `masks` (an empty list is stored absent).
  void setMasks(std::vector<LocalMask> masks);
  bool isEmpty() const { return values.empty() && masks().empty(); }

  // ---- Mutators: each advances `version` as documented ----

  /// Stores the value and advances `version` by 1, even when the value is unchanged.
  void set(AdjustmentKind kind, AdjustmentPayload payload, const EditOrigin& origin, json::Date at);
  void setScalar(AdjustmentKind kind, double v, const EditOrigin& origin, json::Date at);
  void setBoolean(AdjustmentKind kind, bool v, const EditOrigin& origin, json::Date at);
  void setCurve(AdjustmentKind kind, Curve v, const EditOrigin& origin, json::Date at);
  void setRect(AdjustmentKind kind, Rect v, const EditOrigin& origin, json::Date at);
  void setString(AdjustmentKind kind, std::string v, const EditOrigin& origin, json::Date at);
  void setPointColors(std::vector<PointColorTarget> targets, const EditOrigin& origin,
                      json::Date at);
  /// Removes the kind's value; advances `version` only when there was one.
  void clear(AdjustmentKind kind);

  void addMask(LocalMask mask);
  /// Replaces the first mask with the same id (version + 1); does nothing when there is none.
  void updateMask(const LocalMask& mask);
  /// Removes every mask with that id (version + 1); an empty list becomes absent.
  void removeMask(const Uuid& id);

  /// Fit clears "frameFitMode"; Fill stores it as a scalar by the user, now.
  void setFrameFit(FrameFit fit);
  /// Raw clears "developSource"; Jpeg stores it as a scalar by the user, now.
  void setDevelopSource(DevelopSource source);

  /// Makes each group's fields equal `other`'s (values with their provenance; for Masks the
  /// mask list); `version` advances by exactly 1.
  void applyGroups(const std::vector<EditGroup>& groups, const EditStack& other);

  /// Applies a patch in three phases: the version check, validation of every operation, then
  /// the edit operations followed by the mask operations. A version conflict or a malformed
  /// operation leaves the stack unchanged; a missing mask in the last phase leaves the earlier
  /// operations applied (see applyAtomically). Values are stored as given, never clamped.
  /// Returns the ids of the masks created by "add" operations, in order.
  /// Throws EditPatchError.
  std::vector<Uuid> apply(const std::vector<EditPatchOp>& ops,
                          const std::vector<MaskPatchOp>& maskOps, const EditOrigin& origin,
                          json::Date at, std::optional<std::int64_t> expectedVersion);
  /// Applies mask operations in order, without validating them first.
  std::vector<Uuid> applyMaskOps(const std::vector<MaskPatchOp>& maskOps);

  // ---- Readers ----

  const AdjustmentValue* find(AdjustmentKind kind) const;
  std::optional<double> scalar(AdjustmentKind kind) const;
  std::optional<bool> boolean(AdjustmentKind kind) const;
  std::optional<Curve> curve(AdjustmentKind kind) const;
  std::optional<Rect> rect(AdjustmentKind kind) const;
  std::optional<std::string> string(AdjustmentKind kind) const;
  double scalar(AdjustmentKind kind, double fallback) const;
  bool boolean(AdjustmentKind kind, bool fallback) const;
  /// The "pointColor" targets, or none.
  std::vector<PointColorTarget> pointColors() const;

  /// Standard when absent, not a number or out of range.
  ColorProfile colorProfile() const;
  /// Jpeg only when the stored number rounds to exactly 1.
  DevelopSource developSource() const;
  /// Fill only when the stored number rounds to exactly 1.
  FrameFit frameFit() const;
  /// White when absent, not a string or not a hex colour.
  FrameColorRGBA frameColorValue() const;
  bool hasFrame() const;
  /// True unless "frameInsetLinked" is the boolean false.
  bool frameInsetLinked() const;
  FrameInsets frameInsets() const;
  bool hasGeometry() const;
  bool hasValues(EditGroup group) const;

  /// Values, version and masks (absent and empty mask lists are equal).
  friend bool operator==(const EditStack& a, const EditStack& b);

private:
  /// The mask with that id; throws EditPatchError maskNotFound.
  const LocalMask& mask(const Uuid& id) const;
};

/// One entry of a photo's edit history: the stack after a labelled step.
struct HistoryStep {
  Uuid id;
  std::string label; ///< shown to the user
  EditStack stack;
  json::Date date{};

  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("id", &HistoryStep::id), json::field("label", &HistoryStep::label),
        json::field("stack", &HistoryStep::stack), json::field("date", &HistoryStep::date)};
  }
  friend bool operator==(const HistoryStep&, const HistoryStep&) = default;
};

/// The stored format of an edit stack: identifier and version, and the bytes.
struct AdjustmentDataCodec {
  static constexpr std::string_view formatIdentifier = "com.velko.app.editstack";
  static constexpr std::string_view currentFormatVersion = "1.1";
  static constexpr int currentMajorVersion = 1;

  /// True for this format at any major version up to the current one.
  static bool canHandle(std::string_view formatIdentifier, std::string_view formatVersion);
  /// Compact JSON; throws json::EncodeError for a value that cannot be written.
  static std::string encode(const EditStack& stack);
  /// Absent when the bytes are not a readable stack.
  static std::optional<EditStack> decode(std::string_view bytes);
};

} // namespace velko::core

namespace velko::json {

/// {"values": {"exposure": {...}, ...}, "version": 3, "masks": [...]}; "masks" only when there
/// are masks. Decoding skips values and masks it cannot read (see EditStack).
template <> struct Codec<core::EditStack> {
  static Value encode(const core::EditStack& stack);
  static void decode(const Value& v, core::EditStack& out, const Path& path);
};

} // namespace velko::json
