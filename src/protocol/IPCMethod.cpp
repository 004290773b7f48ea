#include "protocol/IPCMethod.h"

namespace velko::protocol {

std::string_view rawValue(IPCMethod method) { return json::enumName(method); }

std::optional<IPCMethod> ipcMethodFromRaw(std::string_view raw) {
  return json::enumFromName<IPCMethod>(raw);
}

} // namespace velko::protocol
