// Length rules of what users write. Lengths count 16-bit units, as the text
// fields report them. An empty result means the text is accepted.
#pragma once

#include <QString>

namespace CommentRules {

// What is sent of a typed comment: the text without the white space around
// it (a comment of spaces alone would show empty).
QString commentText(const QString& typed);
// A comment, as sent: 2 to 60 units; "再多写点内容" below, "再少写点内容"
// above.
QString commentError(const QString& typed);
// The message of a photo being published: 1 to 100 units; "主人，请输入内容"
// when empty, "主人，请删除一些内容" above.
QString photoMessageError(const QString& text);

// Logged in for commenting: "userStae" true and a stored user id.
bool canComment(bool userStae, const QString& userinfoId);

}  // namespace CommentRules
