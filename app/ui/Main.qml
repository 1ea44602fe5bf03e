// The app's window: the navigation stack rooted at the home screen, and the
// overlays every screen shares (pop-ups, splash, action sheets, alerts, the
// progress display and the message bar), topmost last.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

ApplicationWindow {
    id: window
    objectName: "mainWindow"
    width: 320
    height: 568
    visible: true
    title: "容点"
    color: "white"
    font.family: "Noto Sans CJK SC"

    // The navigation stack and the pop-up shown, as the shell reads them.
    readonly property StackView navigation: stack
    readonly property QtObject popup: popupHost.popup

    StackView {
        id: stack
        anchors.fill: parent
        initialItem: MenusViewController {}
        // Escape or the back key leaves a screen, whatever it waits for; the
        // screen left takes its waiting text with it.
        focus: true
        Keys.onEscapePressed: AppDelegate.popScreen()
        Keys.onBackPressed: AppDelegate.popScreen()
        property int lastDepth: 1
        onDepthChanged: {
            if (depth < lastDepth)
                ProgressHud.dismissWaiting()
            lastDepth = depth
        }
    }
    PopupHost {
        id: popupHost
        anchors.fill: parent
    }
    Splash {
        anchors.fill: parent
    }
    ActionSheetView {
        anchors.fill: parent
    }
    AlertView {
        anchors.fill: parent
    }
    ProgressHudView {
        anchors.fill: parent
    }
    MessageBarView {
        width: parent.width
    }

    Connections {
        target: AppDelegate
        function onPushRequested(url, properties) {
            stack.push(url, properties)
        }
        function onPopRequested() {
            if (stack.depth > 1)
                stack.pop()
        }
        function onReplaceRequested(url, properties) {
            if (stack.depth > 1)
                stack.replace(url, properties)
            else
                stack.push(url, properties)
        }
        function onPopupRequested(url, properties) {
            popupHost.present(url, properties)
        }
        function onPopupDismissRequested() {
            popupHost.dismiss()
            ProgressHud.dismissWaiting()
            stack.forceActiveFocus()
        }
    }
}
