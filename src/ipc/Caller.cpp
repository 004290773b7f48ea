#include "ipc/Caller.h"

namespace velko::ipc {

Caller::~Caller() = default;

} // namespace velko::ipc
