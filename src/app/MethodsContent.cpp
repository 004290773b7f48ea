#include "app/Methods.h"

namespace velko::app {

void addContentMethods(MethodTable&) {}

} // namespace velko::app
