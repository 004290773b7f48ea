#include "server/ErrorText.h"

#include "core/EditPatch.h"
#include "protocol/FrameCodec.h"
#include "server/Tool.h"

namespace velko::server {

std::string genericErrorText(std::string_view qualifiedType, int code) {
  // U+2019 in "couldn’t", as the platform writes it.
  std::string text = "The operation couldn\u2019t be completed. (";
  text += qualifiedType;
  text += " error ";
  text += std::to_string(code);
  text += ".)";
  return text;
}

std::string errorText(const ToolError&) {
  return genericErrorText("velko_mcp.ToolError", 1);
}

std::string errorText(const protocol::FrameError& error) {
  int code = 0;
  switch (error.kind()) {
  case protocol::FrameError::Kind::FrameTooLarge:
    code = 0;
    break;
  case protocol::FrameError::Kind::InteriorNewline:
    code = 1;
    break;
  }
  return genericErrorText("VelkoProtocol.FrameCodec.FrameError", code);
}

std::string errorText(const core::EditPatchError& error) {
  using Kind = core::EditPatchError::Kind;
  int code = 0;
  switch (error.kind()) {
  case Kind::MalformedOp:
    code = 0;
    break;
  case Kind::VersionMismatch:
    code = 1;
    break;
  case Kind::MalformedMaskOp:
    code = 2;
    break;
  case Kind::MaskNotFound:
    code = 3;
    break;
  }
  return genericErrorText("VelkoCore.EditPatchError", code);
}

std::string errorText(const std::exception& error) {
  return error.what();
}

std::string unknownErrorText() {
  return "The operation couldn\u2019t be completed.";
}

} // namespace velko::server
