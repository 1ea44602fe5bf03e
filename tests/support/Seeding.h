// Accounts and published photos on a server through the app's own client
// classes, as a person makes them (Endpoints must point at the server).
#pragma once

#include <QImage>
#include <QString>
#include <optional>

#include "service/Records.h"

namespace rdtest {

// A new account; the app is signed in as it afterwards. nullopt when refused.
std::optional<UserInfo> signUp(const QString& mobile, const QString& password, const QString& nick);

// A photo published as the result screen does it: saved, uploaded, then the
// item with its URL, as the signed-in user. Its stored name (empty on failure).
QString publishPhoto(const QImage& photo, const QString& message, const QString& score);

}  // namespace rdtest
