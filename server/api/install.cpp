#include "Services.h"

namespace rd::api {

void install(server::Services&) {}

}  // namespace rd::api
