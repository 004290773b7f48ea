#include "server/ImportTool.h"

#include "core/Uuid.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/LibraryRecords.h"
#include "server/FileTransfer.h"
#include "server/ToolSupport.h"

#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace velko::server {
namespace {

constexpr std::string_view kNeedsPaths = "velko_import needs a non-empty paths array";

json::Array toArray(const std::vector<std::string>& strings) {
  json::Array array;
  for (const std::string& s : strings) {
    array.emplace_back(json::String(s));
  }
  return array;
}

ToolResult prettyResult(const json::Object& object, bool isError) {
  std::string text;
  try {
    text = json::toPretty(object);
  } catch (const json::EncodeError&) {
    return textResult("encoding failed", true);
  }
  return textResult(text, isError);
}

/// Deletes the staged copies unless dismissed, so a failed import leaves nothing behind.
class StagedCopies {
public:
  ~StagedCopies() {
    if (!handedOver_) {
      for (const std::string& path : paths) {
        ::unlink(path.c_str());
      }
    }
  }
  void handOver() { handedOver_ = true; }

  std::vector<std::string> paths;

private:
  bool handedOver_ = false;
};

} // namespace

ToolResult runImport(const ToolArgs& args, ipc::Caller& caller, const std::string& home,
                     const std::string& exchangeDir) {
  std::vector<std::string> sources;
  if (const json::Value* paths = argValue(args, "paths"); paths && paths->is_array()) {
    for (const json::Value& element : paths->get_array()) {
      if (const json::String* s = element.if_string()) {
        sources.emplace_back(s->data(), s->size());
      }
    }
  }
  if (sources.empty()) {
    return textResult(kNeedsPaths, true);
  }

  // A folder that cannot be made shows up as one failed copy per file.
  std::error_code ec;
  std::filesystem::create_directories(exchangeDir, ec);
  const std::string folder =
      !exchangeDir.empty() && exchangeDir.back() == '/' ? exchangeDir : exchangeDir + "/";

  StagedCopies staged;
  std::vector<std::string> failed;
  for (const std::string& source : sources) {
    const std::optional<std::string> expanded = expandPath(source, home);
    const std::string name = lastPathComponent(expanded ? *expanded : source);
    // The UUID keeps names apart; the original name keeps the type visible to the importer.
    const std::string target = folder + core::Uuid::random().str() + "-" + name;
    try {
      if (!expanded) {
        throw std::system_error(std::make_error_code(std::errc::no_such_file_or_directory));
      }
      copyFile(*expanded, target);
    } catch (const std::system_error&) {
      failed.push_back(name);
      continue;
    }
    staged.paths.push_back(target);
  }

  if (staged.paths.empty()) {
    json::Object result;
    result.emplace("importedIDs", json::Array());
    result.emplace("failed", toArray(failed));
    return prettyResult(result, true);
  }

  // On failure `staged` deletes the copies as the error passes up; on success they are the
  // application's to clear away.
  const auto imported = ipc::call<protocol::ImportResult>(caller, protocol::IPCMethod::ImportAssets,
                                                          protocol::ImportParams{staged.paths});
  staged.handOver();

  failed.insert(failed.end(), imported.failed.begin(), imported.failed.end());
  json::Object result;
  result.emplace("importedIDs", toArray(imported.importedIDs));
  result.emplace("failed", toArray(failed));
  result.emplace("count", static_cast<std::int64_t>(imported.importedIDs.size()));
  return prettyResult(result, false);
}

} // namespace velko::server
