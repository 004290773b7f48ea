#include "server/NotAvailableYet.h"

#include <string>

namespace velko::server {

ToolResult notAvailableYet(std::string_view name) {
  json::Object text;
  text["type"] = "text";
  text["text"] = std::string(name) + " is not available yet";
  json::Array content;
  content.emplace_back(std::move(text));
  ToolResult result;
  result["content"] = std::move(content);
  result["isError"] = true;
  return result;
}

Tool notAvailableYetTool(std::string_view name, std::string_view description,
                         std::string_view schema) {
  return Tool{name, description, json::parse(schema), [name](const ToolArgs&, ipc::Caller&) {
                return notAvailableYet(name);
              }};
}

} // namespace velko::server
