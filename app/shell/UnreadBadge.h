// The unread-count badge on the settings button of the navigation bar.
#pragma once

#include <QString>

struct UnreadBadge {
  qint64 tag = 0;        // the settings button's tag: the count as given
  bool visible = false;  // red badge picture and text shown
  QString text;          // "9" for 9 or more, the count below that, empty at 0

  // The badge for count n (setleftBtnRedNum:). Negative counts show their
  // number, as any count that is not 0 below 9 does.
  static UnreadBadge forCount(qint64 n);
};
