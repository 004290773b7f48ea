#include "server/Prompts.h"

namespace velko::server {
namespace {

// Paragraphs are separated by one blank line; the four-space runs inside sentences belong to
// the texts.
// clang-format off
constexpr std::string_view kEditName = "velko_edit";
constexpr std::string_view kCullName = "velko_cull";
constexpr std::string_view kDescribeName = "velko_describe";

constexpr std::string_view kEditListText =
    "Edit the photo you're working on in velko with a disciplined loop: look at it first, plan, apply, review against the goal, iterate, then ask before saving. "
    "Pass the look/reference you want.";
constexpr std::string_view kLookText =
    "The look you want (e.g. 'warm 1980s film', 'moody indie', 'match the reference I pasted').";
constexpr std::string_view kEditTitle = "Disciplined velko editing loop";

constexpr std::string_view kCullListText =
    "Cull and deliver a shoot end-to-end: find the set, show it in the grid, pick the keepers (flag/rate), organize them, and optionally edit + export. "
    "Pass the scope (e.g. 'yesterday', 'the Paris album', 'my selection').";
constexpr std::string_view kScopeText =
    "Which photos to work through (e.g. 'yesterday', 'near the beach', 'the selected photos', 'my 4-star picks').";
constexpr std::string_view kCullTitle = "Cull and deliver a shoot end-to-end";

constexpr std::string_view kDescribeListText =
    "Build the AI photo map: describe every photo (grounded caption + tags) in a resumable loop so the library becomes searchable by content. "
    "Takes no arguments — it works through whatever still needs describing.";
constexpr std::string_view kDescribeTitle = "Build the AI photo map (batch-describe loop)";

constexpr std::string_view kCullOpening = "Help me cull and deliver ";
constexpr std::string_view kCullDefaultScope = "the photos I mean (ask if it's unclear)";
constexpr std::string_view kEditOpening = "Edit the photo I'm working on in velko to achieve ";
constexpr std::string_view kEditDefaultLook = "the look the user describes";

constexpr std::string_view kCullRest =
    R"txt( in velko. Drive the app so I SEE each step — don't just describe it. Follow this flow; stop and check with me at the decision points.

1. FIND + SHOW. Turn the scope into a real set with velko_query (it filters    by date, place, rating, flag, edited, video, favorites, and content),    and pass show:true with a short title so the grid fills with exactly    those photos. If the scope is "selected"/"these", use velko_context    instead. Tell me how many you found.

2. REVIEW IN BATCHES. Work through them in groups. Use velko_preview_render    (or velko_context) to actually LOOK before judging. For near-duplicates,    velko_find_similar helps you compare. Don't rate blind.

3. PICK — velko-local, always safe. Mark keepers and rejects with    velko_flag (pick/reject) and velko_rate (0–5). These live in velko and    change nothing in Apple Photos, so cull freely. Then velko_query    flag:pick show:true to show me just the keepers.

4. ORGANIZE. Group the keepers with velko_collection_add or    velko_keyword_assign (velko's own catalog — free and reversible). Only    use velko_album_add (a real Apple Photos album) if I ask — that needs my    "change my Apple Photos library" switch.

5. EDIT (optional). For a keeper I want polished, velko_open it and follow a    light touch: velko_edit_set for tone/color, velko_crop to reframe,    velko_lut for a look — preview as you go. Keep it subtle.

6. DELIVER (optional). Export the keepers to a folder with velko_export    (I'll give the folder + format). This writes files to disk, not to my    Photos library, so it's always available.

Anything that changes Apple Photos itself — saving edits back (velko_edit_commit / velko_video_commit), deleting, hiding, favoriting, geotagging, albums, importing — only when I explicitly ask AND I've enabled Photos-library changes. If those tools aren't available, that switch is off; keep the work in velko and let me know.)txt";
constexpr std::string_view kEditRest =
    R"txt(. Follow this loop exactly — do not skip steps, do not rush to a final answer.

1. SEE IT FIRST. Call velko_context to get the focused photo and its    preview image. Actually look: what is the photo's current white    balance, exposure, color cast, mood? Note its current edit-stack    version. Never plan edits before seeing the image.

2. UNDERSTAND THE GOAL. If I gave a reference image, describe its    concrete, measurable qualities — white balance, saturation level,    contrast, how blacks/highlights roll off, grain, how skin and    colors actually read. Don't guess at numbers; describe what you see.

3. PLAN THE DELTA, not absolutes. Edits are RELATIVE to this photo's    current state. If the photo is already warm and the goal is warm    film, the right move may be to REDUCE temperature, not add it.    Write a one-line plan with conservative magnitudes (most    adjustments land within ±0.3). Subtle beats strong.

4. APPLY with velko_edit_set (preview:true, expectedVersion from step    1). I see the change live in the app; you see it in the returned    preview.

5. REVIEW HONESTLY. Compare the preview to the goal/reference. Be    self-critical — is it too pronounced? wrong direction? If it    doesn't match, adjust with SMALL deltas and re-preview. Iterate up    to ~4 rounds. Over-editing is the most common mistake.

6. DELIVER. When it genuinely matches, show me the final preview and    say briefly what you did. Do NOT save to Photos yourself — ask me,    and only call velko_edit_commit after I approve.)txt";
constexpr std::string_view kDescribeText =
    R"txt(Build the AI photo map: give every photo a grounded description so the library becomes searchable by content. Work in a resumable loop — the catalog remembers what's done, so you can stop and resume any time.

1. CHECK THE BACKLOG. Call velko_annotate_pending. It returns a batch of    photo ids that still need a description and the total remaining. If    remaining is 0, tell the user the map is complete and stop.

2. SEE EACH PHOTO. For an id in the batch, call velko_preview_render to    actually look at it. Optionally velko_get to read the on-device Vision    baseline tags already attached — build on them, don't repeat them.

3. DESCRIBE WHAT'S THERE, not what might be. Call velko_annotate_set with    a caption that is one true, specific sentence about THIS image    (subject, setting, action, mood). Add keywords, subjects, scene,    setting, peopleCount, and a keeperScore only where you're confident.    Never invent people, places, or text you can't see.

4. REPEAT through the batch, then loop back to step 1 for the next batch.    Go until the backlog is dry (or the user says stop). Report progress    using the remaining count.

This is metadata only — you never change the photos' pixels. Descriptions stay in velko's catalog.)txt";
// clang-format on

json::Object listEntry(std::string_view name, std::string_view description, json::Array arguments) {
  json::Object entry;
  entry.emplace("name", name);
  entry.emplace("description", description);
  entry.emplace("arguments", std::move(arguments));
  return entry;
}

json::Value optionalArgument(std::string_view name, std::string_view description) {
  json::Object argument;
  argument.emplace("name", name);
  argument.emplace("description", description);
  argument.emplace("required", false);
  return argument;
}

/// `value` in straight double quotes, or the fallback phrase when it is empty.
std::string phrase(std::string_view value, std::string_view fallback) {
  if (value.empty()) {
    return std::string(fallback);
  }
  std::string quoted = "\"";
  quoted += value;
  quoted += '"';
  return quoted;
}

/// The string member `key` of an arguments object; empty for any other shape.
std::string_view stringArgument(const json::Value* arguments, std::string_view key) {
  if (arguments == nullptr || !arguments->is_object()) {
    return {};
  }
  const json::Value* v = arguments->get_object().if_contains(key);
  if (v == nullptr || !v->is_string()) {
    return {};
  }
  return v->get_string();
}

json::Object rendered(std::string_view description, std::string_view text) {
  json::Object content;
  content.emplace("type", "text");
  content.emplace("text", text);
  json::Object message;
  message.emplace("role", "user");
  message.emplace("content", std::move(content));
  json::Object result;
  result.emplace("description", description);
  result.emplace("messages", json::Array{json::Value(std::move(message))});
  return result;
}

} // namespace

json::Object promptListEntry() {
  return listEntry(kEditName, kEditListText, json::Array{optionalArgument("look", kLookText)});
}

json::Object cullPromptListEntry() {
  return listEntry(kCullName, kCullListText, json::Array{optionalArgument("scope", kScopeText)});
}

json::Object describePromptListEntry() {
  return listEntry(kDescribeName, kDescribeListText, json::Array());
}

std::string cullWorkflowText(std::string_view scope) {
  std::string text(kCullOpening);
  text += phrase(scope, kCullDefaultScope);
  text += kCullRest;
  return text;
}

std::string editWorkflowText(std::string_view look) {
  std::string text(kEditOpening);
  text += phrase(look, kEditDefaultLook);
  text += kEditRest;
  return text;
}

std::string_view describeWorkflowText() {
  return kDescribeText;
}

std::optional<json::Object> renderPrompt(std::string_view name, const json::Value* arguments) {
  if (name == kCullName) {
    return rendered(kCullTitle, cullWorkflowText(stringArgument(arguments, "scope")));
  }
  if (name == kEditName) {
    return rendered(kEditTitle, editWorkflowText(stringArgument(arguments, "look")));
  }
  if (name == kDescribeName) {
    return rendered(kDescribeTitle, kDescribeText);
  }
  return std::nullopt;
}

} // namespace velko::server
