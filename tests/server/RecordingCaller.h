// A Caller that records every request and answers from a script, for driving tool handlers and
// the dispatcher without a socket; and a helper that runs one row of the tool table.
#pragma once

#include "ipc/Caller.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "protocol/IPCMethod.h"
#include "server/ToolTable.h"

#include <deque>
#include <exception>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velko::server::testing {

class RecordingCaller : public ipc::Caller {
public:
  struct Request {
    protocol::IPCMethod method;
    std::optional<json::Value> params;

    /// "photo.rate {\"ids\":[],\"rating\":3}", or just the method when there were no params.
    std::string str() const {
      std::string text(protocol::rawValue(method));
      if (params) {
        text += ' ';
        text += json::toCompact(*params);
      }
      return text;
    }
  };

  /// The next call returns `result` (JSON text).
  RecordingCaller& answer(std::string_view result) {
    script_.emplace_back(json::parse(result));
    return *this;
  }
  /// The next call throws `error`.
  template <class E> RecordingCaller& fail(E error) {
    script_.emplace_back(std::make_exception_ptr(std::move(error)));
    return *this;
  }

  json::Value call(protocol::IPCMethod method, const std::optional<json::Value>& params) override {
    requests.push_back(Request{method, params});
    if (script_.empty()) {
      ADD_FAILURE() << "unscripted IPC call " << requests.back().str();
      return json::Object();
    }
    auto next = std::move(script_.front());
    script_.pop_front();
    if (auto* error = std::get_if<std::exception_ptr>(&next)) {
      std::rethrow_exception(*error);
    }
    return std::get<json::Value>(std::move(next));
  }

  /// Every request, as Request::str() writes it.
  std::vector<std::string> sent() const {
    std::vector<std::string> lines;
    for (const Request& r : requests) {
      lines.push_back(r.str());
    }
    return lines;
  }

  std::vector<Request> requests;

private:
  std::deque<std::variant<json::Value, std::exception_ptr>> script_;
};

/// Runs the tool-table row `name` with `arguments` (JSON text; null: no arguments key).
inline ToolResult invokeTool(std::string_view name, const char* arguments, ipc::Caller& caller) {
  const Tool* row = findTool(name);
  if (row == nullptr) {
    throw std::runtime_error("no tool " + std::string(name));
  }
  return row->invoke(arguments ? ToolArgs(json::parse(arguments)) : ToolArgs(), caller);
}

/// The text of a tool result's i-th content item.
inline std::string textAt(const ToolResult& result, std::size_t i = 0) {
  return std::string(result.at("content").at(i).at("text").as_string());
}

} // namespace velko::server::testing
