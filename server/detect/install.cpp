#include "Services.h"

namespace rd::detect {

void install(server::Services&) {}

}  // namespace rd::detect
