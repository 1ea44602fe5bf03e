#include "community/AccountChecks.h"

#include <QRegularExpression>

namespace AccountChecks {

bool isPhoneNumber(const QString& number) {
  // Matched against the whole text; \d takes any decimal digit, as the
  // platform's pattern matching did.
  static const QRegularExpression re(
      QRegularExpression::anchoredPattern(QStringLiteral(
          R"((\d{11})|(400|800)([0-9\-]{7,10})|^((\d{7,8})|(\d{4}|\d{3})-(\d{7,8})|(\d{4}|\d{3})-(\d{7,8})-(\d{4}|\d{3}|\d{2}|\d{1})|(\d{7,8})-(\d{4}|\d{3}|\d{2}|\d{1}))$)")),
      QRegularExpression::UseUnicodePropertiesOption);
  return re.match(number).hasMatch();
}

QString signUpError(const QString& number, const QString& password) {
  if (!isPhoneNumber(number)) return QStringLiteral("请输入正确地手机号");
  if (number.isEmpty()) return QStringLiteral("请输入账号");
  if (password.isEmpty()) return QStringLiteral("请输入密码");
  return {};
}

QString logInError(const QString& number, const QString& password) {
  if (number.isEmpty()) return QStringLiteral("请输入账号");
  if (password.isEmpty()) return QStringLiteral("请输入密码");
  return {};
}

QString nameError(const QString& name) {
  if (name.isEmpty()) return QStringLiteral("请输入姓名");
  if (name.size() > kNameMaxUnits) return QStringLiteral("名字最多20个字");
  return {};
}

bool needsRelogin(bool userStae, const QString& userinfoId, const QString& tokenText) {
  return userStae && !userinfoId.isEmpty() && tokenText.size() <= 7;
}

bool hasOldName(const QString& userOldName) {
  return !userOldName.isEmpty() && userOldName != QLatin1String("(null)");
}

}  // namespace AccountChecks
