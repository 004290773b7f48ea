// Rows of the editing tools (edit stack read/set/reset/commit, local masks, preview renders) and of
// the snapshot, crop and look tools (named snapshots, crop rectangle, LUT looks, point colour).
// Descriptions and schemas are the texts the assistant reads; schemas are parsed once, here.
#include "core/EditPatch.h"
#include "core/LocalMask.h"
#include "core/Uuid.h"
#include "json/Path.h"
#include "json/Utf8.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"
#include "server/Tool.h"
#include "server/ToolSupport.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cwctype>
#include <locale.h>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using protocol::IPCMethod;

/// Every change sent from here is recorded by the application as this agent's.
constexpr std::string_view kAgent = "claude-mcp";

// clang-format off
constexpr std::string_view kEditGetText =
    "Read a photo's current edit stack (slider values + per-field provenance) and its version. "
    "ALWAYS call before velko_edit_set and pass the version back as expectedVersion.";
constexpr std::string_view kEditGetSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kEditSetText =
    "Apply slider changes to a photo's edit stack, atomically. "
    "Ops set one field each: {\"kind\": \"exposure\", \"scalar\": 0.7} or {\"kind\": \"treatment\", \"boolean\": true} or {\"kind\": \"clarity\", \"remove\": true}. "
    "Scalar kinds (typical range -1..1, exposure -5..5): exposure, contrast, highlights, shadows, whites, blacks, temperature, tint, vibrance, saturation, sharpenAmount, sharpenRadius, sharpenDetail (sharpen edge-masking 0-1, higher = only strong edges), luminanceNR, colorNR (chroma/color noise 0-1), defringeAmount (0-1, cuts purple/green fringing), clarity, dehaze, texture, rotation (quarter-turns clockwise 0-3). "
    "Color Mixer / HSL — per color band, hsl<Band>Hue / hsl<Band>Sat / hsl<Band>Lum where <Band> is Red, Orange, Yellow, Green, Aqua, Blue, Purple, or Magenta (e.g. hslBlueSat to deepen blues, hslGreenLum to darken foliage) — the precise tool for matching a reference's specific colors. "
    "Color grading (cinematic toning) — cg<Region>Hue (0-1 around the wheel) / cg<Region>Sat (0-1) / cg<Region>Lum (-1..1) where <Region> is Shadow, Mid, Highlight, or Global, plus cgBalance (-1..1, shifts the shadow/highlight pivot). "
    "Effects — vignetteAmount (-1..1, negative darkens edges), vignetteMidpoint, vignetteFeather; grainAmount, grainSize, grainRoughness (film grain); lutIntensity (0-1, blends a LUT the user imported — the LUT itself is chosen in the UI). "
    "Levels — levelsBlack (0-1), levelsWhite (0-1, identity 1), levelsGamma (-1..1, positive brightens midtones). "
    "Geometry — straighten (degrees -45..45, rotates + auto-crops), perspectiveVertical / perspectiveHorizontal (-1..1 keystone), lensDistortion (-1..1; positive corrects barrel, negative pincushion). "
    "Boolean kinds: treatment (true = black & white), flipHorizontal, flipVertical. "
    "(Crop rect, the white-balance eyedropper, Point Color, and LUT selection are interactive UI tools, not set here — use temperature/tint for white balance and the HSL bands to target specific colors.) If the photo is open in velko's editor, the user SEES the change instantly and can undo it. "
    "Non-destructive and velko-local until velko_edit_commit. "
    "On a versionConflict error, re-run velko_edit_get (or velko_context) and retry. "
    "Set preview:true to get an image of the result back in THIS call — ALWAYS do this and actually look at the result before deciding anything is done. "
    "RESTRAINT: edits are RELATIVE to the photo's current state, which you must have seen via velko_context first — if a photo is already warm and the goal is 'warm', the right move may be to REDUCE temperature, not add. "
    "Most adjustments land within ±0.3; over-editing (huge saturation/temperature) is the single most common failure. "
    "Make small changes, preview, compare to the goal, and iterate — don't dump a big grade in one shot.";
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
    "Create and tune LOCAL adjustments (masks) — edits that affect only part of a photo, the way velko_edit_set affects the whole photo. "
    "Actions: 'add' a mask of a given type, optionally with adjustments; 'set' adjustments on an existing mask; 'enable'/'disable' a mask; 'remove' a mask. "
    "Mask types — 'subject' (AI selects the salient subject, on-device Vision), 'people' (AI selects all people), 'radial' (centered oval), 'linear' (graduated), 'luminance' (pixels in a brightness range), 'color' (pixels near a hue). "
    "AI and range masks need no geometry; positions/sizes are sensible defaults the user can refine in-app. "
    "Adjustments use the SAME kinds as velko_edit_set (exposure, contrast, highlights, shadows, saturation, temperature, clarity, …) as an object, e.g. {\"exposure\": -0.4, \"saturation\": 0.2}. "
    "To target a mask for set/enable/disable/remove, pass its id from the stack (velko_edit_get lists masks). "
    "Applies through the same atomic, undoable, velko-local path as velko_edit_set. "
    "Set preview:true to see the result in this call. "
    "Common move: add a 'subject' mask with {\"exposure\": 0.3} to lift the subject off its background, or a 'luminance' mask with {\"highlights\": -0.5} to tame a bright sky.";
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
    "Push a photo's velko edit stack into Apple Photos — same non-destructive pipeline as the editor's Done button (original preserved, revertible in Photos). "
    "Stills only. "
    "ONLY call after the user has SEEN a preview of the result and explicitly approved — never commit edits the user hasn't seen and okayed.";
constexpr std::string_view kEditCommitSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"}
  },
  "required": ["id"]
})json";

constexpr std::string_view kPreviewRenderText =
    "Render a small preview of a photo WITH its current velko edits applied, returned as an image you can see. "
    "Use after velko_edit_set to judge the result and iterate. longEdge default 512, max 1024.";
constexpr std::string_view kPreviewRenderSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "longEdge": {"type": "integer", "minimum": 64, "maximum": 1024}
  },
  "required": ["id"]
})json";

constexpr std::string_view kEditResetText =
    "Revert a photo's edit stack to the original — clears every adjustment in one call. "
    "If the editor is open on this photo the canvas resets live. "
    "Returns the fresh (empty) stack + version.";
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
    "Save the photo's CURRENT edit stack as a named version, so the user can return to this look later. "
    "Snapshots the live editor stack if the photo is open, else the stored one.";
constexpr std::string_view kSnapshotSaveSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "name": {"type": "string"}
  },
  "required": ["id", "name"]
})json";

constexpr std::string_view kSnapshotRestoreText =
    "Restore a named snapshot onto the photo (replaces its current edit stack). "
    "If the editor is open, the canvas updates live. "
    "Returns the restored stack + version.";
constexpr std::string_view kSnapshotRestoreSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "name": {"type": "string"}
  },
  "required": ["id", "name"]
})json";

constexpr std::string_view kCropText =
    "Set a photo's crop — a normalized rectangle (0–1) of the straightened image: x,y is the top-left corner, width,height the size. "
    "E.g. a centered square on a 3:2 photo ≈ {x:0.17, y:0, width:0.66, height:1}. "
    "Pass expectedVersion (from velko_edit_get / velko_context) for safe concurrency, and preview:true to get the result back as an image. "
    "To remove a crop, use velko_edit_reset or set x:0,y:0,width:1,height:1.";
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
    "List the imported 3D LUTs (id + name) you can apply with velko_lut. "
    "Empty if the user hasn't imported any — they import .cube files in the app; you can't import LUTs.";
constexpr std::string_view kLutListSchema = R"json({
  "type": "object",
  "properties": {}
})json";

constexpr std::string_view kLutText =
    "Apply an imported 3D LUT to a photo (a creative color \"look\"). "
    "Give {id, lut} where lut is a LUT id or name from velko_lut_list; optional intensity (0–1 blend, default 1) and preview:true for an image back. "
    "Pass lut:\"none\" to remove the LUT. "
    "Only LUTs the user already imported are available.";
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
    "Set targeted color adjustments (Point Color): shift specific colors without touching the rest. "
    "Give {id, targets} where each target picks a color by targetHue/targetSat/targetLum (0–1) and shifts it by hue (-1..1), sat (-1..1), lum (-1..1), within range (0–1, how wide a band of similar colors is affected). "
    "E.g. deepen skies: target a blue (targetHue≈0.6) with sat:+0.2, lum:-0.1. "
    "Replaces the whole target list; pass targets:[] to clear. preview:true returns an image.";
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

// ---- Shared pieces --------------------------------------------------------------------------

std::string requireId(const ToolArgs& args) {
  if (std::optional<std::string> id = stringArg(args, "id")) {
    return *id;
  }
  throw ToolError("id is required");
}

/// "preview" is on only when it is the JSON value true.
bool previewArg(const ToolArgs& args) {
  const json::Value* value = argValue(args, "preview");
  return value != nullptr && value->is_bool() && value->get_bool();
}

/// One edit.set request carrying `ops` and `maskOps`, stamped with the agent name, with the
/// caller's expectedVersion and preview wish.
protocol::EditSetResult sendEditSet(ipc::Caller& caller, const ToolArgs& args, std::string id,
                                    std::vector<core::EditPatchOp> ops,
                                    std::vector<core::MaskPatchOp> maskOps) {
  protocol::EditSetParams params;
  params.id = std::move(id);
  params.ops = std::move(ops);
  params.maskOps = std::move(maskOps);
  params.expectedVersion = intArg(args, "expectedVersion");
  params.agent = std::string(kAgent);
  params.preview = previewArg(args);
  return ipc::call<protocol::EditSetResult>(caller, IPCMethod::EditSet, params);
}

/// With a preview in the reply: the summary and the image; otherwise the reply as JSON.
ToolResult summaryOrJson(const protocol::EditSetResult& result, const std::string& summary) {
  if (result.preview) {
    return textPlusImageResult(summary, result.preview->pngBase64);
  }
  return jsonTextResult(result);
}

std::string fixed(const char* format, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

// ---- Edit stack -----------------------------------------------------------------------------

/// velko_edit_get and velko_edit_reset: a photo id out, the whole stack and its version back.
template <class Params, IPCMethod method>
ToolResult runStackRead(const ToolArgs& args, ipc::Caller& caller) {
  Params params{requireId(args)};
  return jsonTextResult(ipc::call<protocol::EditGetResult>(caller, method, params));
}

ToolResult runEditCommit(const ToolArgs& args, ipc::Caller& caller) {
  protocol::CommitParams params{requireId(args)};
  return jsonTextResult(ipc::call<protocol::CommitResult>(caller, IPCMethod::EditCommit, params));
}

ToolResult runEditSet(const ToolArgs& args, ipc::Caller& caller) {
  std::string id = requireId(args);
  // The operations decode as the application will read them, so members the schema does not
  // list ("curve", "rect", "string", "pointColors") pass too.
  const json::Path root("arguments");
  const json::Path opsPath = root.key("ops");
  const json::Value* opsValue = argValue(args, "ops");
  if (opsValue == nullptr) {
    opsPath.fail("missing value");
  }
  auto ops = json::decodeAs<std::vector<core::EditPatchOp>>(*opsValue, opsPath);
  protocol::EditSetResult result = sendEditSet(caller, args, std::move(id), std::move(ops), {});
  if (!result.preview) {
    return jsonTextResult(result);
  }
  const protocol::PreviewResult& preview = *result.preview;
  std::string summary = "Applied. newVersion " + std::to_string(result.newVersion) + ". Preview " +
                        std::to_string(preview.width) + "\u00d7" + std::to_string(preview.height);
  if (!preview.basedOnOriginal) {
    summary += " (approximated on the local derivative \u2014 iCloud original not downloadable)";
  }
  summary += ". Judge it against the goal before another change.";
  return textPlusImageResult(summary, preview.pngBase64);
}

// ---- Local masks ----------------------------------------------------------------------------

core::MaskShape maskShapeForType(std::string_view type) {
  if (type == "subject") {
    return core::AiSubjectShape{false};
  }
  if (type == "people") {
    return core::AiPeopleShape{false};
  }
  if (type == "radial") {
    return core::RadialShape{{0.5, 0.5}, {0.3, 0.3}, 0.4, false};
  }
  if (type == "linear") {
    return core::LinearShape{{0.5, 0.2}, {0.5, 0.8}};
  }
  if (type == "luminance") {
    return core::LuminanceRangeShape{0.25, 0.75, 0.1};
  }
  if (type == "color") {
    return core::ColorRangeShape{0.6, 0.08, 0.05};
  }
  throw ToolError("type must be subject|people|radial|linear|luminance|color");
}

/// The (kind, value) pairs of "adjustments" in their given order; members naming no kind, or
/// holding no number, are skipped without complaint.
std::vector<std::pair<core::AdjustmentKind, double>> maskAdjustments(const ToolArgs& args) {
  std::vector<std::pair<core::AdjustmentKind, double>> pairs;
  const json::Value* value = argValue(args, "adjustments");
  if (value == nullptr || !value->is_object()) {
    return pairs;
  }
  for (const auto& member : value->get_object()) {
    std::optional<core::AdjustmentKind> kind = core::parseAdjustmentKind(member.key());
    std::optional<double> number = doubleArg(&member.value());
    if (kind && number) {
      pairs.emplace_back(*kind, *number);
    }
  }
  return pairs;
}

core::Uuid requireMaskId(const ToolArgs& args, const std::string& action) {
  if (std::optional<std::string> text = stringArg(args, "mask")) {
    if (std::optional<core::Uuid> id = core::Uuid::parse(*text)) {
      return *id;
    }
  }
  throw ToolError("'mask' (uuid) is required for action '" + action + "'");
}

core::MaskPatchOp setAdjustmentOp(const core::Uuid& mask, core::AdjustmentKind kind, double value) {
  core::MaskPatchOp op;
  op.action = core::MaskPatchOp::Action::SetAdjustment;
  op.id = mask;
  op.adjustment = kind;
  op.value = value;
  return op;
}

ToolResult runMask(const ToolArgs& args, ipc::Caller& caller) {
  using Action = core::MaskPatchOp::Action;
  std::string id = requireId(args);
  const std::string action = stringArg(args, "action").value_or("add");
  if (action != "add" && action != "set" && action != "enable" && action != "disable" &&
      action != "remove") {
    throw ToolError("action must be add|set|enable|disable|remove");
  }

  std::vector<core::MaskPatchOp> maskOps;
  if (action == "add") {
    core::MaskPatchOp add;
    add.action = Action::Add;
    add.shape = maskShapeForType(stringArg(args, "type").value_or("subject"));
    // The tool names the new mask so that its adjustments can follow in the same patch.
    add.id = core::Uuid::random();
    add.name = stringArg(args, "name");
    const core::Uuid mask = *add.id;
    maskOps.push_back(std::move(add));
    for (const auto& [kind, value] : maskAdjustments(args)) {
      maskOps.push_back(setAdjustmentOp(mask, kind, value));
    }
  } else if (action == "set") {
    const core::Uuid mask = requireMaskId(args, action);
    auto pairs = maskAdjustments(args);
    if (pairs.empty()) {
      throw ToolError("'set' needs an adjustments object");
    }
    for (const auto& [kind, value] : pairs) {
      maskOps.push_back(setAdjustmentOp(mask, kind, value));
    }
  } else if (action == "enable" || action == "disable") {
    core::MaskPatchOp op;
    op.action = Action::SetEnabled;
    op.id = requireMaskId(args, action);
    op.enabled = action == "enable";
    maskOps.push_back(std::move(op));
  } else {
    core::MaskPatchOp op;
    op.action = Action::Remove;
    op.id = requireMaskId(args, action);
    maskOps.push_back(std::move(op));
  }

  protocol::EditSetResult result = sendEditSet(caller, args, std::move(id), {}, std::move(maskOps));
  return summaryOrJson(result, "Applied mask op(s). newVersion " +
                                   std::to_string(result.newVersion) +
                                   ". The stack's masks list (velko_edit_get) has the mask ids to "
                                   "address them next.");
}

// ---- Previews -------------------------------------------------------------------------------

ToolResult runPreviewRender(const ToolArgs& args, ipc::Caller& caller) {
  protocol::PreviewParams params{requireId(args), intArg(args, "longEdge")};
  auto [preview, png] = callTakingPayload<protocol::PreviewResult>(
      caller, IPCMethod::PreviewRender, params, "pngBase64");
  std::string caption = std::to_string(preview.width) + "\u00d7" + std::to_string(preview.height) +
                        ", stack version " + std::to_string(preview.appliedStackVersion);
  if (!preview.basedOnOriginal) {
    caption += " (approximated on the local derivative \u2014 the iCloud original isn't "
               "downloadable right now; detail sliders read slightly stronger than a real commit "
               "will)";
  }
  // The image comes first here, unlike the summary-plus-image results of the editing tools.
  ToolResult result = toolResult({pngItem(""), textItem(std::move(caption))});
  setImagePayload(result, 0, std::move(png));
  return result;
}

// ---- Crop, looks and point colour -----------------------------------------------------------
// Their argument errors are returned as error results, not thrown.

ToolResult runCrop(const ToolArgs& args, ipc::Caller& caller) {
  std::optional<std::string> id = stringArg(args, "id");
  std::optional<double> x = doubleArg(args, "x");
  std::optional<double> y = doubleArg(args, "y");
  std::optional<double> width = doubleArg(args, "width");
  std::optional<double> height = doubleArg(args, "height");
  if (!id || !x || !y || !width || !height) {
    return textResult("velko_crop needs {id, x, y, width, height} (0\u20131)", true);
  }
  // Keep the rectangle inside the image and at least 0.01 on a side unless it starts at the edge.
  core::Rect rect;
  rect.x = std::clamp(*x, 0.0, 1.0);
  rect.y = std::clamp(*y, 0.0, 1.0);
  rect.width = std::min(1 - rect.x, std::max(*width, 0.01));
  rect.height = std::min(1 - rect.y, std::max(*height, 0.01));

  core::EditPatchOp op;
  op.kind = core::AdjustmentKind::Crop;
  op.rect = rect;
  protocol::EditSetResult result = sendEditSet(caller, args, *id, {std::move(op)}, {});
  return summaryOrJson(result,
                       "Cropped to x:" + fixed("%.2f", rect.x) + " y:" + fixed("%.2f", rect.y) +
                           " w:" + fixed("%.2f", rect.width) + " h:" + fixed("%.2f", rect.height) +
                           " (version " + std::to_string(result.newVersion) + ").");
}

/// The code points of UTF-8 `text`, each lower-cased by the Unicode simple case mapping, so that
/// names in any script compare without regard to case ("Été" and "ÉTÉ", "Σκιά" and "ΣΚΙΆ").
std::u32string caseFolded(std::string_view text) {
  static const locale_t kUtf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  std::u32string folded;
  folded.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const json::CodePoint next = json::decodeUtf8(text.substr(i));
    // Not UTF-8: the byte stands for itself.
    char32_t c = next.length > 0 ? next.value : static_cast<unsigned char>(text[i]);
    i += std::max<std::size_t>(next.length, 1);
    if (kUtf8 != static_cast<locale_t>(0)) {
      c = static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), kUtf8));
    } else if (c < 0x80) {
      c = static_cast<char32_t>(std::tolower(static_cast<int>(c)));
    }
    folded.push_back(c);
  }
  return folded;
}

ToolResult runLut(const ToolArgs& args, ipc::Caller& caller) {
  std::optional<std::string> id = stringArg(args, "id");
  std::optional<std::string> lut = stringArg(args, "lut");
  if (!id || !lut) {
    return textResult("velko_lut needs {id, lut}", true);
  }

  std::vector<core::EditPatchOp> ops(2);
  ops[0].kind = core::AdjustmentKind::Lut;
  ops[1].kind = core::AdjustmentKind::LutIntensity;
  const std::u32string wanted = caseFolded(*lut);
  if (wanted == U"none") {
    ops[0].remove = true;
    ops[1].remove = true;
  } else {
    auto list = ipc::call<protocol::LUTListResult>(caller, IPCMethod::LutList);
    auto found = std::find_if(list.luts.begin(), list.luts.end(), [&](const protocol::LUTInfo& l) {
      return l.id == *lut || caseFolded(l.name) == wanted;
    });
    if (found == list.luts.end()) {
      std::string available;
      for (const protocol::LUTInfo& l : list.luts) {
        available += (available.empty() ? "" : ", ") + l.name;
      }
      if (list.luts.empty()) {
        available = "(none \u2014 the user imports LUTs in the app)";
      }
      return textResult("no imported LUT '" + *lut + "'. Available: " + available, true);
    }
    ops[0].string = found->id;
    ops[1].scalar = std::clamp(doubleArg(args, "intensity").value_or(1.0), 0.0, 1.0);
  }
  protocol::EditSetResult result = sendEditSet(caller, args, *id, std::move(ops), {});
  return summaryOrJson(result, "Applied LUT (version " + std::to_string(result.newVersion) + ").");
}

ToolResult runPointColor(const ToolArgs& args, ipc::Caller& caller) {
  std::optional<std::string> id = stringArg(args, "id");
  const json::Value* targetsValue = argValue(args, "targets");
  if (!id || targetsValue == nullptr || !targetsValue->is_array()) {
    return textResult("velko_point_color needs {id, targets}", true);
  }
  std::vector<core::PointColorTarget> targets;
  for (const json::Value& element : targetsValue->get_array()) {
    const json::Object* target = element.if_object();
    auto number = [&](std::string_view key) {
      return target != nullptr ? doubleArg(target->if_contains(key)) : std::nullopt;
    };
    std::optional<double> hue = number("targetHue");
    std::optional<double> sat = number("targetSat");
    std::optional<double> lum = number("targetLum");
    if (!hue || !sat || !lum) {
      return textResult("each target needs targetHue, targetSat, targetLum (0\u20131)", true);
    }
    targets.push_back({*hue, *sat, *lum, number("hue").value_or(0.0), number("sat").value_or(0.0),
                       number("lum").value_or(0.0), number("range").value_or(0.5)});
  }
  const std::size_t count = targets.size();
  core::EditPatchOp op;
  op.kind = core::AdjustmentKind::PointColor;
  op.pointColors = std::move(targets);
  protocol::EditSetResult result = sendEditSet(caller, args, *id, {std::move(op)}, {});
  return summaryOrJson(result, "Set " + std::to_string(count) + " point-color target(s) (version " +
                                   std::to_string(result.newVersion) + ").");
}

} // namespace

void addEditingTools(std::vector<ToolRow>& table) {
  using protocol::EditGetResult;
  using protocol::LUTListResult;
  using protocol::SnapshotInfo;
  using protocol::SnapshotListParams;
  using protocol::SnapshotListResult;
  using protocol::SnapshotRefParams;
  // clang-format off
  table.push_back({9, "velko_edit_get", kEditGetText, kEditGetSchema, runStackRead<protocol::EditGetParams, IPCMethod::EditGet>});
  table.push_back({10, "velko_edit_set", kEditSetText, kEditSetSchema, runEditSet});
  table.push_back({11, "velko_mask", kMaskText, kMaskSchema, runMask});
  table.push_back({12, "velko_edit_commit", kEditCommitText, kEditCommitSchema, runEditCommit});
  table.push_back({13, "velko_preview_render", kPreviewRenderText, kPreviewRenderSchema, runPreviewRender});
  table.push_back({24, "velko_edit_reset", kEditResetText, kEditResetSchema, runStackRead<protocol::EditResetParams, IPCMethod::EditReset>});
  table.push_back({37, "velko_snapshot_list", kSnapshotListText, kSnapshotListSchema, direct<SnapshotListParams, SnapshotListResult, IPCMethod::SnapshotList>});
  table.push_back({38, "velko_snapshot_save", kSnapshotSaveText, kSnapshotSaveSchema, direct<SnapshotRefParams, SnapshotInfo, IPCMethod::SnapshotSave>});
  table.push_back({39, "velko_snapshot_restore", kSnapshotRestoreText, kSnapshotRestoreSchema, direct<SnapshotRefParams, EditGetResult, IPCMethod::SnapshotRestore>});
  table.push_back({42, "velko_crop", kCropText, kCropSchema, runCrop});
  table.push_back({45, "velko_lut_list", kLutListText, kLutListSchema, noParams<LUTListResult, IPCMethod::LutList>});
  table.push_back({46, "velko_lut", kLutText, kLutSchema, runLut});
  table.push_back({47, "velko_point_color", kPointColorText, kPointColorSchema, runPointColor});
  // clang-format on
}

} // namespace velko::server
