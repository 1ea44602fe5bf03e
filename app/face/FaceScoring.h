// The 容点 score of one face, and the rules that present it on the result
// screen: the app's Qt-facing side of the score. The formulas themselves are
// in FaceScoringCore (plain C++, shared with the server's check of published
// scores); this reads the face record's numbers and hands them over.
#pragma once

#include <QString>
#include <QStringList>

#include "face/FaceInfo.h"

// The scoring fields of the home screen, replaced on every face.
struct FaceScore {
  double eyePoint = 0;    // 0..1
  double mouthPoint = 0;  // 0..1
  double nosePoint = 0;   // 0..1
  double otherPoint = 0;  // age and smile, unbounded above
  QString allLabPoint;    // overall score, "%d" text
};

// What the result screen is given.
struct ResultHandOver {
  QString allResultPoint;  // allLabPoint as it stands
  double eyePoint = 0;     // ×100
  double mouthPoint = 0;   // ×100
  double nosePoint = 0;    // ×100
  double otherPoint = 0;   // ×10 ("气质")
};

namespace FaceScoring {

// The distance helper: sqrt(x*x + x*x), absolute; y is read and not used.
double lineLOng(double x, double y);

// refresh: the five fields from one face record.
FaceScore refresh(const FaceInfo& face);

ResultHandOver handOver(const FaceScore& s);

// A double truncated towards zero to a 32-bit integer: NaN gives 0, values
// out of range saturate.
int truncToInt32(double v);

// Sub-score label: the "%d" text of the value below 100, "爆表" from 100 on
// (a NaN is not 100 or more, so it reads "0").
QString subScoreLabel(double value);

// The bar chart's values once the count-up has ended: "%f" texts.
QString chartValueText(double value);

// Order of the four sub-scores on the screen and in the chart.
inline const QStringList kSubScoreTitles = {QStringLiteral("眼睛"), QStringLiteral("鼻子"),
                                            QStringLiteral("嘴"), QStringLiteral("气质")};
// The four hand-over values in that order: eyes, nose, mouth, 气质.
QList<double> subScoreValues(const ResultHandOver& h);

// The attribute lines: "年龄：%@±%@", "性别：女"/"性别：男", "微笑程度：%ld".
QString ageLine(const FaceInfo& face);
QString sexLine(const FaceInfo& face);
QString smileLine(const FaceInfo& face);

// What the count-up animation counts to: allResultPoint read as a float.
float countUpTarget(const QString& allResultPoint);

}  // namespace FaceScoring
