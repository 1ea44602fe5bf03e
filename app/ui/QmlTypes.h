// Every C++ type the screens use, as module "Rongdian" declares it. The
// module's type registration is generated from this header; nothing is
// registered by hand.
//
// The singletons are objects the app makes itself (the shell's delegate and
// capture controller, the overlays and the community's services): the engine
// is handed each one and never owns it.
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QAbstractItemModel>
#include <QJSEngine>
#include <QObject>

#include "community/CommentTableViews.h"
#include "community/ItemTableViews.h"
#include "community/ui/Contact.h"
#include "community/ui/FeedRows.h"
#include "community/ui/ItemActions.h"
#include "community/ui/Notices.h"
#include "community/ui/Session.h"
#include "community/ui/Sharing.h"
#include "community/ui/VoiceRecorder.h"
#include "face/ui/CaptureController.h"
#include "face/ui/NumberJump.h"
#include "face/ui/ResultViewController.h"
#include "shell/AlertCenter.h"
#include "shell/MessageBar.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"

class QQmlEngine;

namespace QmlTypes {

// The running app's capture controller (set before its window loads).
inline CaptureController* capture = nullptr;

template <typename T>
T* kept(T* object) {
  QJSEngine::setObjectOwnership(object, QJSEngine::CppOwnership);
  return object;
}

}  // namespace QmlTypes

// Singletons.
struct AppForeign {
  Q_GADGET
  QML_FOREIGN(AppDelegate)
  QML_NAMED_ELEMENT(App)
  QML_SINGLETON
 public:
  static AppDelegate* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(AppDelegate::instance());
  }
};

struct CaptureForeign {
  Q_GADGET
  QML_FOREIGN(CaptureController)
  QML_NAMED_ELEMENT(Capture)
  QML_SINGLETON
 public:
  static CaptureController* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(QmlTypes::capture);
  }
};

struct HudForeign {
  Q_GADGET
  QML_FOREIGN(ProgressHud)
  QML_NAMED_ELEMENT(Hud)
  QML_SINGLETON
 public:
  static ProgressHud* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(ProgressHud::instance());
  }
};

struct MessageBarForeign {
  Q_GADGET
  QML_FOREIGN(MessageBar)
  QML_NAMED_ELEMENT(MessageBar)
  QML_SINGLETON
 public:
  static MessageBar* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(MessageBar::instance());
  }
};

struct AlertsForeign {
  Q_GADGET
  QML_FOREIGN(AlertCenter)
  QML_NAMED_ELEMENT(Alerts)
  QML_SINGLETON
 public:
  static AlertCenter* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(AlertCenter::instance());
  }
};

struct SessionForeign {
  Q_GADGET
  QML_FOREIGN(Session)
  QML_NAMED_ELEMENT(Session)
  QML_SINGLETON
 public:
  static Session* create(QQmlEngine*, QJSEngine*) { return QmlTypes::kept(Session::instance()); }
};

struct FeedRowsForeign {
  Q_GADGET
  QML_FOREIGN(FeedRows)
  QML_NAMED_ELEMENT(FeedRows)
  QML_SINGLETON
 public:
  static FeedRows* create(QQmlEngine*, QJSEngine*) { return QmlTypes::kept(FeedRows::instance()); }
};

struct ItemsForeign {
  Q_GADGET
  QML_FOREIGN(ItemActions)
  QML_NAMED_ELEMENT(Items)
  QML_SINGLETON
 public:
  static ItemActions* create(QQmlEngine*, QJSEngine*) {
    return QmlTypes::kept(ItemActions::instance());
  }
};

struct SharingForeign {
  Q_GADGET
  QML_FOREIGN(Sharing)
  QML_NAMED_ELEMENT(Sharing)
  QML_SINGLETON
 public:
  static Sharing* create(QQmlEngine*, QJSEngine*) { return QmlTypes::kept(Sharing::instance()); }
};

struct ContactForeign {
  Q_GADGET
  QML_FOREIGN(Contact)
  QML_NAMED_ELEMENT(Contact)
  QML_SINGLETON
 public:
  static Contact* create(QQmlEngine*, QJSEngine*) { return QmlTypes::kept(Contact::instance()); }
};

struct NoticesForeign {
  Q_GADGET
  QML_FOREIGN(Notices)
  QML_NAMED_ELEMENT(Notices)
  QML_SINGLETON
 public:
  static Notices* create(QQmlEngine*, QJSEngine*) { return QmlTypes::kept(Notices::instance()); }
};

// Types the screens hold but do not make.
struct NumberJumpForeign {
  Q_GADGET
  QML_FOREIGN(NumberJump)
  QML_NAMED_ELEMENT(NumberJump)
  QML_UNCREATABLE("made by its screen")
};

struct ResultLogicForeign {
  Q_GADGET
  QML_FOREIGN(ResultViewController)
  QML_NAMED_ELEMENT(ResultLogic)
  QML_UNCREATABLE("made by the capture flow")
};

// The lists' base type, which Qt's own module declarations leave out.
struct QAbstractItemModelForeign {
  Q_GADGET
  QML_FOREIGN(QAbstractItemModel)
  QML_ANONYMOUS
};

// Types the screens make.
struct ShowTableViewForeign {
  Q_GADGET
  QML_FOREIGN(ShowTableView)
  QML_NAMED_ELEMENT(ShowTableView)
};

struct ValueTableViewForeign {
  Q_GADGET
  QML_FOREIGN(ValueTableView)
  QML_NAMED_ELEMENT(ValueTableView)
};

struct MyFaceTableViewForeign {
  Q_GADGET
  QML_FOREIGN(MyFaceTableView)
  QML_NAMED_ELEMENT(MyFaceTableView)
};

struct CommentTableViewForeign {
  Q_GADGET
  QML_FOREIGN(CommentTableView)
  QML_NAMED_ELEMENT(CommentTableView)
};

struct SelectCommentTableViewForeign {
  Q_GADGET
  QML_FOREIGN(SelectCommentTableView)
  QML_NAMED_ELEMENT(SelectCommentTableView)
};

struct VoiceRecorderForeign {
  Q_GADGET
  QML_FOREIGN(VoiceRecorder)
  QML_NAMED_ELEMENT(VoiceRecorder)
};
