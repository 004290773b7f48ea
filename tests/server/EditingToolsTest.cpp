#include "server/NotAvailableYet.h"
#include "server/Tool.h"
#include "server/ToolSchemaChecks.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using testing::findTool;
using testing::propertyNames;
using testing::requiredNames;

std::vector<Tool> editingTable() {
  std::vector<Tool> table;
  addEditingTools(table);
  return table;
}

TEST(EditingTools, AppendsThirteenRowsInListingOrder) {
  std::vector<Tool> table = editingTable();
  EXPECT_EQ(testing::toolNames(table),
            (std::vector<std::string_view>{
                "velko_edit_get", "velko_edit_set", "velko_mask", "velko_edit_commit",
                "velko_preview_render", "velko_edit_reset", "velko_snapshot_list",
                "velko_snapshot_save", "velko_snapshot_restore", "velko_crop", "velko_lut_list",
                "velko_lut", "velko_point_color"}));
}

TEST(EditingTools, SchemasFollowTheConventions) {
  for (const Tool& tool : editingTable()) {
    testing::expectSchemaFollowsConventions(tool);
  }
}

TEST(EditingTools, RequiredListsNameWhatTheHandlersNeed) {
  struct Case {
    std::string_view tool;
    std::vector<std::string> required;
  };
  const Case cases[] = {
      {"velko_edit_get", {"id"}},
      {"velko_edit_set", {"id", "ops"}},
      {"velko_mask", {"id"}},
      {"velko_edit_commit", {"id"}},
      {"velko_preview_render", {"id"}},
      {"velko_edit_reset", {"id"}},
      {"velko_snapshot_list", {"id"}},
      {"velko_snapshot_save", {"id", "name"}},
      {"velko_snapshot_restore", {"id", "name"}},
      {"velko_crop", {"id", "x", "y", "width", "height"}},
      {"velko_lut_list", {}},
      {"velko_lut", {"id", "lut"}},
      {"velko_point_color", {"id", "targets"}},
  };
  std::vector<Tool> table = editingTable();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool));
    const Tool& tool = findTool(table, c.tool);
    EXPECT_EQ(requiredNames(tool), c.required);
    // A tool without required properties has no "required" key at all.
    EXPECT_EQ(tool.inputSchema.as_object().contains("required"), !c.required.empty());
  }
}

TEST(EditingTools, DescriptionsKeepTheirExactCharacters) {
  struct Case {
    std::string_view tool;
    std::string_view start;
    std::string_view inside;
    std::string_view end;
  };
  const Case cases[] = {
      {"velko_edit_get", "Read a photo's current edit stack (slider values",
       "ALWAYS call before velko_edit_set", "pass the version back as expectedVersion."},
      {"velko_edit_set", "Apply slider changes to a photo's edit stack, atomically. Ops set",
       "Most adjustments land within \u00b10.3; over-editing",
       "iterate \u2014 don't dump a big grade in one shot."},
      {"velko_edit_set", "Apply slider",
       R"(Ops set one field each: {"kind": "exposure", "scalar": 0.7} or)", "one shot."},
      {"velko_edit_set", "Apply slider",
       "hsl<Band>Hue / hsl<Band>Sat / hsl<Band>Lum where <Band> is Red", "one shot."},
      {"velko_edit_set", "Apply slider", "if a photo is already warm and the goal is 'warm', the",
       "one shot."},
      {"velko_mask", "Create and tune LOCAL adjustments (masks) \u2014 edits",
       "clarity, \u2026) as an object, e.g. {\"exposure\": -0.4, \"saturation\": 0.2}.",
       R"(a 'luminance' mask with {"highlights": -0.5} to tame a bright sky.)"},
      {"velko_edit_commit", "Push a photo's velko edit stack into Apple Photos \u2014 same",
       "Stills only. ONLY call after", "never commit edits the user hasn't seen and okayed."},
      {"velko_preview_render", "Render a small preview of a photo WITH its current velko edits",
       "Use after velko_edit_set to judge", "longEdge default 512, max 1024."},
      {"velko_edit_reset", "Revert a photo's edit stack to the original \u2014 clears",
       "the canvas resets live.", "Returns the fresh (empty) stack + version."},
      {"velko_snapshot_list", "List a photo's saved edit versions (snapshots)", ": name + ",
       "when saved."},
      {"velko_snapshot_save", "Save the photo's CURRENT edit stack", "return to this look later.",
       "else the stored one."},
      {"velko_snapshot_restore", "Restore a named snapshot onto the photo",
       "(replaces its current edit stack)", "Returns the restored stack + version."},
      {"velko_crop", "Set a photo's crop \u2014 a normalized rectangle (0\u20131) of",
       "a centered square on a 3:2 photo \u2248 {x:0.17, y:0, width:0.66, height:1}.",
       "set x:0,y:0,width:1,height:1."},
      {"velko_lut_list", "List the imported 3D LUTs (id + name)",
       "hasn't imported any \u2014 they import .cube files", "you can't import LUTs."},
      {"velko_lut", R"(Apply an imported 3D LUT to a photo (a creative color "look").)",
       "intensity (0\u20131 blend, default 1) and preview:true for an image back. Pass "
       "lut:\"none\"",
       "Only LUTs the user already imported are available."},
      {"velko_point_color", "Set targeted color adjustments (Point Color):",
       "target a blue (targetHue\u22480.6) with sat:+0.2, lum:-0.1.",
       "pass targets:[] to clear. preview:true returns an image."},
  };
  std::vector<Tool> table = editingTable();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + ": " + std::string(c.inside));
    std::string_view text = findTool(table, c.tool).description;
    EXPECT_TRUE(text.starts_with(c.start));
    EXPECT_NE(text.find(c.inside), std::string_view::npos);
    EXPECT_TRUE(text.ends_with(c.end));
    EXPECT_EQ(text.find('\n'), std::string_view::npos);
  }
}

TEST(EditingTools, MaskSchemaListsItsPropertiesInOrderWithEnums) {
  std::vector<Tool> table = editingTable();
  const Tool& mask = findTool(table, "velko_mask");
  EXPECT_EQ(propertyNames(mask),
            (std::vector<std::string>{"id", "action", "type", "name", "mask", "adjustments",
                                      "expectedVersion", "preview"}));
  const json::Value& p = mask.inputSchema.at("properties");
  EXPECT_EQ(p.at("action"),
            json::parse(R"({"type": "string", "enum": ["add", "set", "enable", "disable",
                           "remove"], "description": "Default 'add'."})"));
  EXPECT_EQ(p.at("type").at("enum"),
            json::parse(R"(["subject", "people", "radial", "linear", "luminance", "color"])"));
  EXPECT_EQ(p.at("type").at("description"), "Mask type for action 'add'.");
  EXPECT_EQ(p.at("adjustments"), json::parse(R"({"type": "object",
                           "description": "kind\u2192value, e.g. {\"exposure\": -0.4}. For add and set."})"));
  EXPECT_EQ(p.at("id").at("description"), "Photo localIdentifier.");
  EXPECT_EQ(p.at("expectedVersion").at("description"),
            "Version from velko_edit_get/velko_context.");
}

TEST(EditingTools, PropertyDetailsOfTheOtherSchemas) {
  std::vector<Tool> table = editingTable();
  const json::Value& editSet = findTool(table, "velko_edit_set").inputSchema.at("properties");
  EXPECT_EQ(editSet.at("ops"), json::parse(R"({"type": "array", "items": {"type": "object",
      "properties": {"kind": {"type": "string"}, "scalar": {"type": "number"},
                     "boolean": {"type": "boolean"}, "remove": {"type": "boolean"}}}})"));
  EXPECT_EQ(
      editSet.at("expectedVersion").at("description"),
      "Version from velko_edit_get/velko_context \u2014 protects the user's concurrent edits.");
  EXPECT_EQ(editSet.at("preview").at("description"),
            "Return a rendered image of the result in this same call.");

  EXPECT_EQ(findTool(table, "velko_preview_render").inputSchema.at("properties").at("longEdge"),
            json::parse(R"({"type": "integer", "minimum": 64, "maximum": 1024})"));

  const json::Value& lut = findTool(table, "velko_lut").inputSchema.at("properties");
  EXPECT_EQ(lut.at("lut").at("description"),
            "LUT id or name (from velko_lut_list), or \"none\" to remove.");
  EXPECT_EQ(lut.at("intensity"),
            json::parse(R"({"type": "number", "description": "0\u20131 blend (default 1)."})"));

  EXPECT_EQ(findTool(table, "velko_lut_list").inputSchema,
            json::parse(R"({"type": "object", "properties": {}})"));

  const Tool& crop = findTool(table, "velko_crop");
  EXPECT_EQ(propertyNames(crop), (std::vector<std::string>{"id", "x", "y", "width", "height",
                                                           "expectedVersion", "preview"}));
  const Tool& pointColor = findTool(table, "velko_point_color");
  const json::Value& targetItem = pointColor.inputSchema.at("properties").at("targets").at("items");
  std::vector<std::string> targetKeys;
  for (const auto& p : targetItem.at("properties").as_object()) {
    EXPECT_EQ(p.value(), json::parse(R"({"type": "number"})")) << p.key();
    targetKeys.emplace_back(p.key());
  }
  EXPECT_EQ(targetKeys, (std::vector<std::string>{"targetHue", "targetSat", "targetLum", "hue",
                                                  "sat", "lum", "range"}));
}

TEST(EditingTools, UnbuiltHandlersSayPlainlyThatTheyAreNotAvailable) {
  testing::UnreachableCaller caller;
  for (const Tool& tool : editingTable()) {
    SCOPED_TRACE(std::string(tool.name));
    ToolResult result = tool.invoke(json::parse(R"({"id":"A"})"), caller);
    EXPECT_EQ(json::Value(result),
              json::parse(R"({"content":[{"type":"text","text":")" + std::string(tool.name) +
                          R"( is not available yet"}],"isError":true})"));
  }
}

} // namespace
} // namespace velko::server
