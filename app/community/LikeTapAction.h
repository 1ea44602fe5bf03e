// The one like/dislike operation of every item view. A like adds 100 to the
// item's score, a dislike takes 100 away; both add 1 to the like count (the
// dislike count is never touched). The change is made at once and kept
// unless the backend refuses the vote (the photo is gone): then the item's
// views go back to the numbers of before.
#pragma once

#include <QString>

class LikeTapAction {
 public:
  struct Values {
    QString score;  // lookscorebasis, "%ld"
    QString like;   // like count, "%ld"
  };
  // The item's new score and like count after a like (isLike) or dislike.
  static Values nextValues(const QString& score, const QString& like, bool isLike);

  // The message bar after a successful answer (the same after a dislike).
  static QString thanksTitle();                            // "温馨提示"
  static QString thanksText(const QString& userlikename);  // "感谢您为%@增加100容点。"
};
