#include "Services.h"

namespace rd::push {

void install(server::Services&) {}

}  // namespace rd::push
