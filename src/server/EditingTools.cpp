// Rows of the editing tools (edit stack read/set/reset/commit, local masks, preview renders) and of
// the snapshot, crop and look tools (named snapshots, crop rectangle, LUT looks, point colour).
// Descriptions and schemas are the texts the assistant reads; schemas are parsed once, here.
#include "server/NotAvailableYet.h"
#include "server/Tool.h"

#include <string_view>
#include <vector>

namespace velko::server {
namespace {

// clang-format off
constexpr std::string_view kEditGetText =
    R"txt(Read a photo's current edit stack (slider values + per-field provenance) and its version. ALWAYS call before velko_edit_set and pass the version back as expectedVersion.)txt";
constexpr std::string_view kEditGetSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kEditSetText =
    R"txt(Apply slider changes to a photo's edit stack, atomically. Ops set one field each: {"kind": "exposure", "scalar": 0.7} or {"kind": "treatment", "boolean": true} or {"kind": "clarity", "remove": true}. Scalar kinds (typical range -1..1, exposure -5..5): exposure, contrast, highlights, shadows, whites, blacks, temperature, tint, vibrance, saturation, sharpenAmount, sharpenRadius, sharpenDetail (sharpen edge-masking 0-1, higher = only strong edges), luminanceNR, colorNR (chroma/color noise 0-1), defringeAmount (0-1, cuts purple/green fringing), clarity, dehaze, texture, rotation (quarter-turns clockwise 0-3). Color Mixer / HSL — per color band, hsl<Band>Hue / hsl<Band>Sat / hsl<Band>Lum where <Band> is Red, Orange, Yellow, Green, Aqua, Blue, Purple, or Magenta (e.g. hslBlueSat to deepen blues, hslGreenLum to darken foliage) — the precise tool for matching a reference's specific colors. Color grading (cinematic toning) — cg<Region>Hue (0-1 around the wheel) / cg<Region>Sat (0-1) / cg<Region>Lum (-1..1) where <Region> is Shadow, Mid, Highlight, or Global, plus cgBalance (-1..1, shifts the shadow/highlight pivot). Effects — vignetteAmount (-1..1, negative darkens edges), vignetteMidpoint, vignetteFeather; grainAmount, grainSize, grainRoughness (film grain); lutIntensity (0-1, blends a LUT the user imported — the LUT itself is chosen in the UI). Levels — levelsBlack (0-1), levelsWhite (0-1, identity 1), levelsGamma (-1..1, positive brightens midtones). Geometry — straighten (degrees -45..45, rotates + auto-crops), perspectiveVertical / perspectiveHorizontal (-1..1 keystone), lensDistortion (-1..1; positive corrects barrel, negative pincushion). Boolean kinds: treatment (true = black & white), flipHorizontal, flipVertical. (Crop rect, the white-balance eyedropper, Point Color, and LUT selection are interactive UI tools, not set here — use temperature/tint for white balance and the HSL bands to target specific colors.) If the photo is open in velko's editor, the user SEES the change instantly and can undo it. Non-destructive and velko-local until velko_edit_commit. On a versionConflict error, re-run velko_edit_get (or velko_context) and retry. Set preview:true to get an image of the result back in THIS call — ALWAYS do this and actually look at the result before deciding anything is done. RESTRAINT: edits are RELATIVE to the photo's current state, which you must have seen via velko_context first — if a photo is already warm and the goal is 'warm', the right move may be to REDUCE temperature, not add. Most adjustments land within ±0.3; over-editing (huge saturation/temperature) is the single most common failure. Make small changes, preview, compare to the goal, and iterate — don't dump a big grade in one shot.)txt";
constexpr std::string_view kEditSetSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "ops": {
      "type": "array",
      "items": {
        "type": "object",
        "properties": {
          "kind": {"type": "string"},
          "scalar": {"type": "number"},
          "boolean": {"type": "boolean"},
          "remove": {"type": "boolean"}
        }
      }
    },
    "expectedVersion": {"type": "integer", "description": "Version from velko_edit_get/velko_context — protects the user's concurrent edits."},
    "preview": {"type": "boolean", "description": "Return a rendered image of the result in this same call."}
  },
  "required": ["id", "ops"]
})json";

constexpr std::string_view kMaskText =
    R"txt(Create and tune LOCAL adjustments (masks) — edits that affect only part of a photo, the way velko_edit_set affects the whole photo. Actions: 'add' a mask of a given type, optionally with adjustments; 'set' adjustments on an existing mask; 'enable'/'disable' a mask; 'remove' a mask. Mask types — 'subject' (AI selects the salient subject, on-device Vision), 'people' (AI selects all people), 'radial' (centered oval), 'linear' (graduated), 'luminance' (pixels in a brightness range), 'color' (pixels near a hue). AI and range masks need no geometry; positions/sizes are sensible defaults the user can refine in-app. Adjustments use the SAME kinds as velko_edit_set (exposure, contrast, highlights, shadows, saturation, temperature, clarity, …) as an object, e.g. {"exposure": -0.4, "saturation": 0.2}. To target a mask for set/enable/disable/remove, pass its id from the stack (velko_edit_get lists masks). Applies through the same atomic, undoable, velko-local path as velko_edit_set. Set preview:true to see the result in this call. Common move: add a 'subject' mask with {"exposure": 0.3} to lift the subject off its background, or a 'luminance' mask with {"highlights": -0.5} to tame a bright sky.)txt";
constexpr std::string_view kMaskSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string", "description": "Photo localIdentifier."},
    "action": {"type": "string", "enum": ["add", "set", "enable", "disable", "remove"], "description": "Default 'add'."},
    "type": {"type": "string", "enum": ["subject", "people", "radial", "linear", "luminance", "color"], "description": "Mask type for action 'add'."},
    "name": {"type": "string", "description": "Optional label for an added mask."},
    "mask": {"type": "string", "description": "Target mask id (uuid) for set/enable/disable/remove."},
    "adjustments": {"type": "object", "description": "kind→value, e.g. {\"exposure\": -0.4}. For add and set."},
    "expectedVersion": {"type": "integer", "description": "Version from velko_edit_get/velko_context."},
    "preview": {"type": "boolean", "description": "Return a rendered image of the result."}
  },
  "required": ["id"]
})json";

constexpr std::string_view kEditCommitText =
    R"txt(Push a photo's velko edit stack into Apple Photos — same non-destructive pipeline as the editor's Done button (original preserved, revertible in Photos). Stills only. ONLY call after the user has SEEN a preview of the result and explicitly approved — never commit edits the user hasn't seen and okayed.)txt";
constexpr std::string_view kEditCommitSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kPreviewRenderText =
    R"txt(Render a small preview of a photo WITH its current velko edits applied, returned as an image you can see. Use after velko_edit_set to judge the result and iterate. longEdge default 512, max 1024.)txt";
constexpr std::string_view kPreviewRenderSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "longEdge": {"type": "integer", "minimum": 64, "maximum": 1024}
  },
  "required": ["id"]
})json";

constexpr std::string_view kEditResetText =
    R"txt(Revert a photo's edit stack to the original — clears every adjustment in one call. If the editor is open on this photo the canvas resets live. Returns the fresh (empty) stack + version.)txt";
constexpr std::string_view kEditResetSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kSnapshotListText =
    R"txt(List a photo's saved edit versions (snapshots): name + when saved.)txt";
constexpr std::string_view kSnapshotListSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kSnapshotSaveText =
    R"txt(Save the photo's CURRENT edit stack as a named version, so the user can return to this look later. Snapshots the live editor stack if the photo is open, else the stored one.)txt";
constexpr std::string_view kSnapshotSaveSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "name": {"type": "string"}
  },
  "required": ["id", "name"]
})json";

constexpr std::string_view kSnapshotRestoreText =
    R"txt(Restore a named snapshot onto the photo (replaces its current edit stack). If the editor is open, the canvas updates live. Returns the restored stack + version.)txt";
constexpr std::string_view kSnapshotRestoreSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "name": {"type": "string"}
  },
  "required": ["id", "name"]
})json";

constexpr std::string_view kCropText =
    R"txt(Set a photo's crop — a normalized rectangle (0–1) of the straightened image: x,y is the top-left corner, width,height the size. E.g. a centered square on a 3:2 photo ≈ {x:0.17, y:0, width:0.66, height:1}. Pass expectedVersion (from velko_edit_get / velko_context) for safe concurrency, and preview:true to get the result back as an image. To remove a crop, use velko_edit_reset or set x:0,y:0,width:1,height:1.)txt";
constexpr std::string_view kCropSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "x": {"type": "number"},
    "y": {"type": "number"},
    "width": {"type": "number"},
    "height": {"type": "number"},
    "expectedVersion": {"type": "integer"},
    "preview": {"type": "boolean"}
  },
  "required": ["id", "x", "y", "width", "height"]
})json";

constexpr std::string_view kLutListText =
    R"txt(List the imported 3D LUTs (id + name) you can apply with velko_lut. Empty if the user hasn't imported any — they import .cube files in the app; you can't import LUTs.)txt";
constexpr std::string_view kLutListSchema = R"json({
  "type": "object",
  "properties": {}
})json";

constexpr std::string_view kLutText =
    R"txt(Apply an imported 3D LUT to a photo (a creative color "look"). Give {id, lut} where lut is a LUT id or name from velko_lut_list; optional intensity (0–1 blend, default 1) and preview:true for an image back. Pass lut:"none" to remove the LUT. Only LUTs the user already imported are available.)txt";
constexpr std::string_view kLutSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "lut": {"type": "string", "description": "LUT id or name (from velko_lut_list), or \"none\" to remove."},
    "intensity": {"type": "number", "description": "0–1 blend (default 1)."},
    "preview": {"type": "boolean"},
    "expectedVersion": {"type": "integer"}
  },
  "required": ["id", "lut"]
})json";

constexpr std::string_view kPointColorText =
    R"txt(Set targeted color adjustments (Point Color): shift specific colors without touching the rest. Give {id, targets} where each target picks a color by targetHue/targetSat/targetLum (0–1) and shifts it by hue (-1..1), sat (-1..1), lum (-1..1), within range (0–1, how wide a band of similar colors is affected). E.g. deepen skies: target a blue (targetHue≈0.6) with sat:+0.2, lum:-0.1. Replaces the whole target list; pass targets:[] to clear. preview:true returns an image.)txt";
constexpr std::string_view kPointColorSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "targets": {
      "type": "array",
      "items": {
        "type": "object",
        "properties": {
          "targetHue": {"type": "number"},
          "targetSat": {"type": "number"},
          "targetLum": {"type": "number"},
          "hue": {"type": "number"},
          "sat": {"type": "number"},
          "lum": {"type": "number"},
          "range": {"type": "number"}
        }
      }
    },
    "preview": {"type": "boolean"},
    "expectedVersion": {"type": "integer"}
  },
  "required": ["id", "targets"]
})json";
// clang-format on

} // namespace

void addEditingTools(std::vector<Tool>& table) {
  // clang-format off
  table.push_back(notAvailableYetTool("velko_edit_get", kEditGetText, kEditGetSchema));
  table.push_back(notAvailableYetTool("velko_edit_set", kEditSetText, kEditSetSchema));
  table.push_back(notAvailableYetTool("velko_mask", kMaskText, kMaskSchema));
  table.push_back(notAvailableYetTool("velko_edit_commit", kEditCommitText, kEditCommitSchema));
  table.push_back(notAvailableYetTool("velko_preview_render", kPreviewRenderText, kPreviewRenderSchema));
  table.push_back(notAvailableYetTool("velko_edit_reset", kEditResetText, kEditResetSchema));
  table.push_back(notAvailableYetTool("velko_snapshot_list", kSnapshotListText, kSnapshotListSchema));
  table.push_back(notAvailableYetTool("velko_snapshot_save", kSnapshotSaveText, kSnapshotSaveSchema));
  table.push_back(notAvailableYetTool("velko_snapshot_restore", kSnapshotRestoreText, kSnapshotRestoreSchema));
  table.push_back(notAvailableYetTool("velko_crop", kCropText, kCropSchema));
  table.push_back(notAvailableYetTool("velko_lut_list", kLutListText, kLutListSchema));
  table.push_back(notAvailableYetTool("velko_lut", kLutText, kLutSchema));
  table.push_back(notAvailableYetTool("velko_point_color", kPointColorText, kPointColorSchema));
  // clang-format on
}

} // namespace velko::server
