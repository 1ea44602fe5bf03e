// The splash over the live home screen: the picture under a white veil and
// the title block, faded out and removed by the start-up (App).
pragma ComponentBehavior: Bound
import QtQuick
import Rongdian

Item {
    id: splash
    objectName: "splash"
    visible: App.splashPictureShown || App.splashTitleShown

    Image {
        id: beginAppimg
        objectName: "beginAppimg"
        visible: App.splashPictureShown
        anchors.fill: parent
        anchors.topMargin: -20
        source: "qrc:/pictures/location_more.png"
        fillMode: Image.PreserveAspectCrop
        clip: true
        opacity: App.splashFading ? 0 : 1
        Behavior on opacity {
            NumberAnimation {
                duration: App.splashFadeMs
            }
        }
        Rectangle {
            anchors.fill: parent
            color: "white"
            z: -1
        }
        Rectangle {
            objectName: "beginAppimgView"
            width: parent.width * 3
            height: parent.height * 3
            color: "white"
            opacity: 0.6
        }
        MouseArea {
            anchors.fill: parent
        } // swallows taps
    }
    Item {
        id: beginTitleView
        objectName: "beginTitleView"
        visible: App.splashTitleShown
        x: 40
        y: 120
        width: splash.width - 80
        height: 80
        opacity: App.splashFading ? 0 : 1
        Behavior on opacity {
            NumberAnimation {
                duration: App.splashFadeMs
            }
        }
        Image {
            objectName: "titleImage"
            y: App.splashTitleOffset
            width: parent.width
            height: parent.height
            source: "qrc:/pictures/location_title.png"
            fillMode: Image.PreserveAspectFit
        }
    }
}
