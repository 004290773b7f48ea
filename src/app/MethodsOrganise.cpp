#include "app/Methods.h"

namespace velko::app {

void addOrganiseMethods(MethodTable&) {}

} // namespace velko::app
