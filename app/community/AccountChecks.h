// The account screens' checks: which message a sign-up, a log-in or a name
// choice is refused with (an empty text: accepted), the mobile-number pattern
// and the re-login test of the sign-up screen.
#pragma once

#include <QString>

namespace AccountChecks {

// The number must match the pattern as a whole: eleven digits, 400 or 800
// followed by 7-10 digits or hyphens, or a fixed-line number with optional
// area code and extension.
bool isPhoneNumber(const QString& number);

// Sign-up: "请输入正确地手机号", "请输入账号", "请输入密码", in that order.
QString signUpError(const QString& number, const QString& password);
// Log-in pop-up: "请输入账号", then "请输入密码".
QString logInError(const QString& number, const QString& password);
// The longest display name the server keeps, in 16-bit units (an emoji
// counts two), as the server counts.
inline constexpr int kNameMaxUnits = 20;

// Name pop-up: "请输入姓名" when empty, "名字最多20个字" when longer than
// kNameMaxUnits.
QString nameError(const QString& name);

// The sign-up screen sends a user it believes logged in straight to log-in
// when the stored token, formatted as text ("(null)" when missing), has 7
// characters or fewer.
bool needsRelogin(bool userStae, const QString& userinfoId, const QString& tokenText);

// An account from before the password-reset rule: a stored old user name that
// is neither empty nor "(null)".
bool hasOldName(const QString& userOldName);

}  // namespace AccountChecks
