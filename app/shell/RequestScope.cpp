#include "RequestScope.h"

#include <utility>

namespace {
thread_local QObject* g_current = nullptr;

std::function<QObject*()>& screenProvider() {
  static std::function<QObject*()> provider;
  return provider;
}
}  // namespace

RequestScope::RequestScope(QObject* owner) : previous_(g_current) { g_current = owner; }

RequestScope::~RequestScope() { g_current = previous_; }

QObject* RequestScope::current() { return g_current; }

QObject* RequestScope::screen() {
  const auto& provider = screenProvider();
  return provider ? provider() : nullptr;
}

void RequestScope::setScreenProvider(std::function<QObject*()> provider) {
  screenProvider() = std::move(provider);
}
