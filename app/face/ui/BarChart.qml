// A bar chart of a few values: one bar per title, the y axis from 0 to
// `maximum` (values above it fill the whole height). Values are texts, as the
// result screen keeps them.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls

Item {
    id: chart
    property var titles: []
    property var values: []
    property real maximum: 100
    property color barColor: "#ff5a7d"

    readonly property real axisLeft: 28
    readonly property real plotHeight: height - 26

    // Axis lines and the y scale (0, 50, 100).
    Repeater {
        model: 3
        delegate: Item {
            id: tick
            required property int index
            y: chart.plotHeight * (1 - index / 2)
            width: chart.width
            Rectangle {
                x: chart.axisLeft
                width: chart.width - chart.axisLeft
                height: 1
                color: tick.index === 0 ? "#999999" : "#eeeeee"
            }
            Label {
                anchors.right: parent.left
                anchors.rightMargin: -chart.axisLeft + 4
                anchors.verticalCenter: parent.top
                text: Math.round(chart.maximum * tick.index / 2)
                font.pixelSize: 10
                color: "#999999"
            }
        }
    }
    Row {
        x: chart.axisLeft
        width: chart.width - chart.axisLeft
        height: chart.height
        Repeater {
            model: chart.titles.length
            delegate: Item {
                id: bar
                required property int index
                width: (chart.width - chart.axisLeft) / chart.titles.length
                height: chart.height
                readonly property real value: {
                    const v = parseFloat(chart.values[index])
                    return isNaN(v) ? 0 : Math.max(0, Math.min(v, chart.maximum))
                }
                Rectangle {
                    objectName: "bar" + bar.index
                    anchors.horizontalCenter: parent.horizontalCenter
                    width: parent.width * 0.5
                    y: chart.plotHeight - height
                    height: chart.plotHeight * parent.value / chart.maximum
                    color: chart.barColor
                    radius: 2
                    Behavior on height {
                        NumberAnimation {
                            duration: 400
                            easing.type: Easing.OutCubic
                        }
                    }
                }
                Label {
                    anchors.horizontalCenter: parent.horizontalCenter
                    y: chart.plotHeight + 5
                    text: chart.titles[bar.index]
                    font.pixelSize: 13
                    color: "#555555"
                }
            }
        }
    }
}
