// The splash over the live home screen: the picture under a white veil and
// the title block, faded out and removed by the start-up (AppDelegate).
pragma ComponentBehavior: Bound
import QtQuick
import Rongdian

Item {
    id: splash
    objectName: "splash"
    visible: AppDelegate.splashPictureShown || AppDelegate.splashTitleShown

    Image {
        id: beginAppimg
        objectName: "beginAppimg"
        visible: AppDelegate.splashPictureShown
        anchors.fill: parent
        anchors.topMargin: -20
        source: "qrc:/pictures/location_more.png"
        fillMode: Image.PreserveAspectCrop
        clip: true
        opacity: AppDelegate.splashFading ? 0 : 1
        Behavior on opacity {
            NumberAnimation {
                duration: AppDelegate.splashFadeMs
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
        visible: AppDelegate.splashTitleShown
        x: 40
        y: 120
        width: splash.width - 80
        height: 80
        opacity: AppDelegate.splashFading ? 0 : 1
        Behavior on opacity {
            NumberAnimation {
                duration: AppDelegate.splashFadeMs
            }
        }
        Image {
            objectName: "titleImage"
            y: AppDelegate.splashTitleOffset
            width: parent.width
            height: parent.height
            source: "qrc:/pictures/location_title.png"
            fillMode: Image.PreserveAspectFit
        }
    }
}
