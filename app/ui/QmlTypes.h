// The C++ types the screens use whose own libraries do not link QtQml (the
// shell's overlays, the community's paged lists, Qt's list model), declared
// here for module "Rongdian" under their class names. Every other type the
// screens see declares itself in its class header (QML_ELEMENT).
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QAbstractItemModel>
#include <QObject>

#include "community/CommentTableViews.h"
#include "community/ItemTableViews.h"
#include "shell/AlertCenter.h"
#include "shell/MessageBar.h"
#include "shell/ProgressHud.h"
#include "shell/ui/QmlSingleton.h"

// The overlays, one each for the whole app.
struct ProgressHudForeign {
  Q_GADGET
  QML_FOREIGN(ProgressHud)
  QML_NAMED_ELEMENT(ProgressHud)
  QML_SINGLETON
 public:
  static ProgressHud* create(QQmlEngine*, QJSEngine*) { return keptByApp(ProgressHud::instance()); }
};

struct MessageBarForeign {
  Q_GADGET
  QML_FOREIGN(MessageBar)
  QML_NAMED_ELEMENT(MessageBar)
  QML_SINGLETON
 public:
  static MessageBar* create(QQmlEngine*, QJSEngine*) { return keptByApp(MessageBar::instance()); }
};

struct AlertCenterForeign {
  Q_GADGET
  QML_FOREIGN(AlertCenter)
  QML_NAMED_ELEMENT(AlertCenter)
  QML_SINGLETON
 public:
  static AlertCenter* create(QQmlEngine*, QJSEngine*) { return keptByApp(AlertCenter::instance()); }
};

// The lists' base type, which Qt's own module declarations leave out.
struct QAbstractItemModelForeign {
  Q_GADGET
  QML_FOREIGN(QAbstractItemModel)
  QML_ANONYMOUS
};

// The paged lists the screens make.
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
