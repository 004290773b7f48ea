#include "server/ExportTool.h"

#include "files/FileMove.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/DeliveryRecords.h"
#include "server/FileTransfer.h"
#include "server/ToolSupport.h"

#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

namespace velko::server {
namespace {

constexpr int kMaxExportNames = 100'000;
constexpr std::string_view kNeedsIds = "velko_export needs a non-empty ids array";
constexpr std::string_view kNeedsDirectory = "velko_export needs a destination directory";

/// The string elements of the `ids` array, in order; anything else is dropped.
std::vector<std::string> stringElements(const json::Value* value) {
  std::vector<std::string> strings;
  if (value != nullptr && value->is_array()) {
    for (const json::Value& element : value->get_array()) {
      if (const json::String* s = element.if_string()) {
        strings.emplace_back(s->data(), s->size());
      }
    }
  }
  return strings;
}

struct FileName {
  std::string stem;
  std::string extension; ///< after the last dot; empty when there is none
};

FileName splitFileName(const std::string& suggested) {
  // The application names a file, not a path: only its last component can land in the folder.
  std::string name = lastPathComponent(suggested);
  if (name == "/") {
    name.clear();
  }
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) {
    return {name, ""};
  }
  return {name.substr(0, dot), name.substr(dot + 1)};
}

/// What velko_export reports: where the files went, and which ids failed.
struct ExportSummary {
  std::string directory;
  std::int64_t count = 0;
  std::vector<std::string> written;
  std::vector<std::string> failed;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("directory", &ExportSummary::directory),
                      json::field("count", &ExportSummary::count),
                      json::field("written", &ExportSummary::written),
                      json::field("failed", &ExportSummary::failed)};
  }
};

} // namespace

ToolResult runExport(const ToolArgs& args, ipc::Caller& caller, const std::string& home) {
  const std::vector<std::string> ids = stringElements(argValue(args, "ids"));
  if (ids.empty()) {
    return textResult(kNeedsIds, true);
  }
  const std::optional<std::string> directory = stringArg(args, "directory");
  if (!directory || directory->empty()) {
    return textResult(kNeedsDirectory, true);
  }

  std::optional<std::string> folder = expandPath(*directory, home);
  if (!folder) {
    return textResult("couldn't create " + *directory + ": no such user", true);
  }
  while (folder->size() > 1 && folder->back() == '/') {
    folder->pop_back(); // the folder is reported as a folder path, without a trailing slash
  }
  std::error_code ec;
  std::filesystem::create_directories(*folder, ec);
  if (ec) {
    return textResult("couldn't create " + *folder + ": " + ec.message(), true);
  }

  // No defaults and no range checks: what is absent is sent absent and the application decides.
  protocol::ExportRenderParams settings;
  settings.format = stringArg(args, "format");
  settings.longEdge = intArg(args, "longEdge");
  settings.quality = doubleArg(args, "quality");
  settings.colorSpace = stringArg(args, "colorSpace");
  std::optional<std::string> prefix = stringArg(args, "filenamePrefix");
  if (prefix && prefix->empty()) {
    prefix.reset(); // an empty prefix would only make names like "-1.jpg"
  }

  std::vector<std::string> written;
  std::vector<std::string> failed;
  for (std::size_t n = 1; n <= ids.size(); ++n) {
    const std::string& id = ids[n - 1];
    protocol::ExportRenderParams params = settings;
    params.id = id;
    protocol::ExportRenderResult rendered;
    try {
      rendered = ipc::call<protocol::ExportRenderResult>(caller, protocol::IPCMethod::ExportRender,
                                                         params);
    } catch (const std::exception&) {
      // The result lists ids only; one photo's failure must not stop the others.
      failed.push_back(id);
      continue;
    }

    const FileName name = splitFileName(rendered.suggestedFilename);
    // Numbered by position, so the files of a partly failed export still line up with the ids.
    std::string base = prefix ? *prefix + "-" + std::to_string(n) : name.stem;
    if (base.empty()) {
      base = "export";
    }
    const std::string extension = name.extension.empty() ? "jpg" : name.extension;
    const std::string prefix = *folder == "/" ? *folder : *folder + "/";
    std::string destination;
    try {
      // base.ext, then base-1.ext, base-2.ext, …: the move itself claims the first free name,
      // so a file that appears meanwhile is never replaced.
      destination = files::moveToFreeName(rendered.path, kMaxExportNames, [&](int k) {
        std::string path = prefix + base;
        if (k > 0) {
          path += '-';
          path += std::to_string(k);
        }
        return path + "." + extension;
      });
    } catch (const std::system_error&) {
      failed.push_back(id); // the rendered file stays where the application put it
      continue;
    }
    written.push_back(destination);
  }

  const ExportSummary summary{*folder, static_cast<std::int64_t>(written.size()), written, failed};
  std::string text;
  try {
    text = json::toPretty(json::encode(summary));
  } catch (const json::EncodeError&) {
    return textResult("encoding failed", true);
  }
  // A partial export is a success that lists its failures.
  return textResult(text, written.empty() && !failed.empty());
}

} // namespace velko::server
