// The backend's records as the screens see them: a published photo (Item), a
// user (UserInfo) and a comment (Comment). Nearly every field is the text of
// the JSON value (see KADO_JSON); a null QString stands for "not set".
//
// They are gadgets: QML reads the fields by name (modelData.imgurl, ...), and
// the paged lists expose every field as a model role of the same name.
#pragma once

#include <QList>
#include <QMetaProperty>
#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QVariantMap>

struct Item {
  Q_GADGET
  Q_PROPERTY(QString itemId MEMBER itemId)
  Q_PROPERTY(QString imgurl MEMBER imgurl)
  Q_PROPERTY(QString imgmessage MEMBER imgmessage)
  Q_PROPERTY(QString like MEMBER like)
  Q_PROPERTY(QString unlike MEMBER unlike)
  Q_PROPERTY(QString createdAt MEMBER createdAt)
  Q_PROPERTY(QString updatedAt MEMBER updatedAt)
  Q_PROPERTY(QString lookscorebasis MEMBER lookscorebasis)
  Q_PROPERTY(QString userlikename MEMBER userlikename)
  Q_PROPERTY(qint64 commentNum MEMBER commentNum)
  Q_PROPERTY(QString isenablePhoto MEMBER isenablePhoto)
 public:
  QString itemId;          // "id"
  QString imgurl;          // "base_image_url"
  QString imgmessage;      // "description"
  QString like;            // "num_like"
  QString unlike;          // "num_dislike"
  QString createdAt;       // "created_at"
  QString updatedAt;       // "updated_at"
  QString lookscorebasis;  // "num_look_score"
  QString userlikename;    // "user" -> "nickname"; null when "user" is not an object
  qint64 commentNum = 0;   // "num_comments"
  QString isenablePhoto;   // "is_enabled_photo": "1"/"0"; null when missing
};

struct UserInfo {
  Q_GADGET
  Q_PROPERTY(QString createdAt MEMBER createdAt)
  Q_PROPERTY(QString userinfoId MEMBER userinfoId)
  Q_PROPERTY(QString updatedAt MEMBER updatedAt)
  Q_PROPERTY(QString userlikename MEMBER userlikename)
  Q_PROPERTY(QString username MEMBER username)
  Q_PROPERTY(qint64 userScore MEMBER userScore)
  Q_PROPERTY(QString user_type MEMBER user_type)
  Q_PROPERTY(qint64 numComments MEMBER numComments)
  Q_PROPERTY(QString userOldName MEMBER userOldName)
  Q_PROPERTY(QString userOldLikename MEMBER userOldLikename)
 public:
  QString createdAt;        // "created_at"
  QString userinfoId;       // "id": the session token
  QString updatedAt;        // "updated_at"
  QString userlikename;     // "nickname"
  QString username;         // "mobile"
  qint64 userScore = 0;     // "num_score"
  QString user_type;        // "user_type"
  qint64 numComments = 0;   // "num_comments"
  QString userOldName;      // "username"
  QString userOldLikename;  // "userlikename"
};

struct Comment {
  Q_GADGET
  Q_PROPERTY(QString commentId MEMBER commentId)
  Q_PROPERTY(QString commentmessage MEMBER commentmessage)
  Q_PROPERTY(QString createdAt MEMBER createdAt)
  Q_PROPERTY(QString itemid MEMBER itemid)
  Q_PROPERTY(QString updatedAt MEMBER updatedAt)
  Q_PROPERTY(QString userlikename MEMBER userlikename)
 public:
  QString commentId;       // "id"
  QString commentmessage;  // "comments"
  QString createdAt;       // "created_at"
  QString itemid;          // "item_id"
  QString updatedAt;       // "updated_at"
  QString userlikename;    // "user" -> "nickname"
};

Q_DECLARE_METATYPE(Item)
Q_DECLARE_METATYPE(UserInfo)
Q_DECLARE_METATYPE(Comment)

// A record as the map QML reads: one entry per field, named as the record
// names it.
template <typename T>
QVariantMap recordMap(const T& gadget) {
  QVariantMap m;
  const QMetaObject& mo = T::staticMetaObject;
  for (int i = mo.propertyOffset(); i < mo.propertyCount(); ++i) {
    const QMetaProperty p = mo.property(i);
    m.insert(QString::fromLatin1(p.name()), p.readOnGadget(&gadget));
  }
  return m;
}

// A record in a QVariant (or a map of its fields, returned as it is).
QVariantMap recordMap(const QVariant& record);
