#include "app/AppFixture.h"
