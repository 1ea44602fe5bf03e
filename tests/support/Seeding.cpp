#include "support/Seeding.h"

#include <QObject>

#include "publish/PhotoPublisher.h"
#include "service/UserInfoApi.h"
#include "support/Wait.h"

namespace rdtest {

std::optional<UserInfo> signUp(const QString& mobile, const QString& password,
                               const QString& nick) {
  std::optional<UserInfo> user;
  UserInfoApi::UserSignin(mobile, password, nick, QStringLiteral("rd_register_user"),
                          [&](const UserInfo& u) { user = u; });
  waitUntil([&] { return user.has_value(); }, 20000);
  return user;
}

QString publishPhoto(const QImage& photo, const QString& message, const QString& score) {
  PhotoPublisher publisher(PhotoPublisher::makeDefaultToken());
  int done = 0;
  QObject::connect(&publisher, &PhotoPublisher::published, [&] { done = 1; });
  QObject::connect(&publisher, &PhotoPublisher::uploadFailed, [&] { done = -1; });
  publisher.addMessageSuccess(message, photo, score, true);
  waitUntil([&] { return done != 0; }, 30000);
  return done == 1 ? publisher.imgLocationName : QString();
}

}  // namespace rdtest
