// What the assistant reads when a tool fails. Errors that carry a user-facing text of their own
// (the IPC client's, the JSON layer's, the platform's) show it; the program's other error types
// show the generic sentence of the host platform, naming the module-qualified type and the
// error's code: the case number for an enumeration, 1 for a record. A ToolError's own message is
// deliberately not shown. The dispatcher catches, most specific type first, and asks here.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace velko::core {
class EditPatchError;
}
namespace velko::protocol {
class FrameError;
}

namespace velko::server {

class ToolError;

/// "The operation couldn’t be completed. (<qualifiedType> error <code>.)"
std::string genericErrorText(std::string_view qualifiedType, int code);

/// "…(velko_mcp.ToolError error 1.)"
std::string errorText(const ToolError& error);
/// "…(VelkoProtocol.FrameCodec.FrameError error 0.)" for frameTooLarge, "error 1." for
/// interiorNewline.
std::string errorText(const protocol::FrameError& error);
/// "…(VelkoCore.EditPatchError error <n>.)", n from 0 (malformedOp) to 3 (maskNotFound).
std::string errorText(const core::EditPatchError& error);
/// Any other exception: its own text (client, JSON and platform errors are written for users).
std::string errorText(const std::exception& error);
/// Something that is not a std::exception at all.
std::string unknownErrorText();

} // namespace velko::server
