#include "app/Methods.h"

namespace velko::app {

void addEditingMethods(MethodTable&) {}

} // namespace velko::app
