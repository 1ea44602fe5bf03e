#include "Services.h"

namespace rd::storage {

void install(server::Services&) {}

}  // namespace rd::storage
