#include "Services.h"

namespace rd::store {

void install(server::Services&) {}

}  // namespace rd::store
