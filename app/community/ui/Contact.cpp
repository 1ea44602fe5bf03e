#include "community/ui/Contact.h"

#include "BuildConfig.h"
#include "community/FeedbackClient.h"
#include "service/Endpoints.h"
#include "shell/ProgressHud.h"

Contact* Contact::instance() {
  static Contact* c = new Contact;
  return c;
}

QString Contact::contactText() const {
  return QStringLiteral("如果您对容点有什么好的意见，或者合作请联系我。") +
         Endpoints::onServer(QString::fromUtf8(rd::build::kContactEmail));
}

QString Contact::reviewUrl() const {
  return Endpoints::onServer(QString::fromUtf8(rd::build::kStoreReviewUrl))
      .replace(QStringLiteral("{id}"), QString::fromUtf8(rd::build::kStoreId));
}

void Contact::sendFeedback(const QString& text, const QString& voicePath) {
  ProgressHud* hud = ProgressHud::instance();
  if (text.trimmed().isEmpty()) {
    hud->showErrorWithStatus(QStringLiteral("主人，请输入内容"));
    emit feedbackAnswered(false);
    return;
  }
  if (text.size() > FeedbackClient::kMaxTextLength) {
    hud->showErrorWithStatus(
        QStringLiteral("主人，请删除一些内容（最多%1个字）").arg(FeedbackClient::kMaxTextLength));
    emit feedbackAnswered(false);
    return;
  }
  hud->showWithStatus(QStringLiteral("发送中..."));
  FeedbackClient::send(text, voicePath, [this](const FeedbackClient::Result& r) {
    if (r.ok)
      ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("感谢您的反馈"));
    else
      ProgressHud::instance()->showErrorWithStatus(r.message);
    emit feedbackAnswered(r.ok);
  });
}
