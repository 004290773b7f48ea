#include "server/FindSimilarTool.h"

#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/LibraryRecords.h"
#include "server/ImageThumbnail.h"
#include "server/ToolSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>

namespace velko::server {
namespace {

constexpr std::string_view kNeedsQuery = "velko_find_similar needs one of: path, image, or id";
constexpr std::string_view kNotIndexed =
    "No photos are indexed for visual search yet — let velko finish describing the library "
    "(Settings ▸ Photo descriptions), then try again.";
constexpr int kQueryMaxPixel = 1024;
/// Thumbnails follow only the nearest few matches, however many the search returns.
constexpr std::size_t kMaxThumbnails = 6;
constexpr std::int64_t kThumbnailLongEdge = 256;

/// A JSON number with an integral value; fractions, booleans and strings read as absent.
std::optional<std::int64_t> integralArg(const json::Value* value) {
  if (value == nullptr) {
    return std::nullopt;
  }
  if (value->is_int64()) {
    return value->get_int64();
  }
  if (value->is_uint64()) {
    return std::nullopt; // beyond any sensible limit and beyond int64
  }
  if (value->is_double()) {
    const double d = value->get_double();
    if (std::trunc(d) == d && d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
      return static_cast<std::int64_t>(d);
    }
  }
  return std::nullopt;
}

std::optional<std::string> nonEmptyString(const json::Value* value) {
  std::optional<std::string> s = stringArg(value);
  return s && !s->empty() ? s : std::nullopt;
}

std::string caption(const protocol::SimilarMatch& match) {
  char distance[64];
  std::snprintf(distance, sizeof distance, "%.3f", match.distance);
  return match.id + " (distance " + distance + ")";
}

} // namespace

ToolResult runFindSimilar(const ToolArgs& args, ipc::Caller& caller) {
  protocol::SimilarFindParams params;
  params.limit = integralArg(argValue(args, "limit"));

  if (const auto path = nonEmptyString(argValue(args, "path"))) {
    std::optional<std::string> image;
    try {
      image = downscaledImageBase64(*path, kQueryMaxPixel);
    } catch (const ImageLibraryUnavailable& e) {
      return textResult(e.what(), true);
    }
    if (!image) {
      return textResult("couldn't read an image at " + *path, true);
    }
    params.imageBase64 = std::move(image);
  } else if (auto image = nonEmptyString(argValue(args, "image"))) {
    params.imageBase64 = std::move(image); // passed through as given, neither checked nor shrunk
  } else if (const json::Value* id = argValue(args, "id")) {
    auto text = nonEmptyString(id);
    if (!text) {
      return textResult(kNeedsQuery, true);
    }
    params.id = std::move(text);
  } else {
    return textResult(kNeedsQuery, true);
  }

  const auto found =
      ipc::call<protocol::SimilarFindResult>(caller, protocol::IPCMethod::SimilarFind, params);
  if (found.indexed == 0) {
    return textResult(kNotIndexed, false);
  }

  std::vector<ContentItem> content;
  try {
    content.push_back(textItem(json::toPretty(json::encode(found))));
  } catch (const json::EncodeError&) {
    // The thumbnails still say something; the list just starts without the text.
  }
  const std::size_t shown = std::min(kMaxThumbnails, found.matches.size());
  for (std::size_t i = 0; i < shown; ++i) {
    const protocol::SimilarMatch& match = found.matches[i];
    protocol::PreviewResult preview;
    try {
      preview =
          ipc::call<protocol::PreviewResult>(caller, protocol::IPCMethod::PreviewRender,
                                             protocol::PreviewParams{match.id, kThumbnailLongEdge});
    } catch (const std::exception&) {
      continue; // a match without a thumbnail is still listed in the text
    }
    content.push_back(pngItem(std::move(preview.pngBase64)));
    content.push_back(textItem(caption(match)));
  }

  return toolResult(std::move(content));
}

} // namespace velko::server
