#include "UnreadBadge.h"

UnreadBadge UnreadBadge::forCount(qint64 n) {
  UnreadBadge b;
  b.tag = n;
  if (n >= 9) {
    b.visible = true;
    b.text = QStringLiteral("9");
  } else if (n != 0) {
    b.visible = true;
    b.text = QString::number(n);
  }
  return b;
}
