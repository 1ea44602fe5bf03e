// The home screen: the root of the navigation. Its menu ("+" on the right)
// opens the album or the camera for a new score, and the two feeds; the
// settings button on the left carries the unread badge. The feeds themselves
// come from MenusFeeds.qml when the app has it.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
// qmllint disable unused-imports
import QtQuick.Layouts // the album's Layout attached properties (fitAlbumToWidth)
// qmllint enable unused-imports
import QtQuick.Dialogs
import Rongdian

BaseViewController {
    id: home
    objectName: "MenusViewController"
    rightImage: "qrc:/pictures/btn_add.png"
    onRightClicked: presentMenuButtonTapped()

    // The menu rows: title and icon.
    readonly property var menuTitles: ["", "相册", "拍照", "容点榜", "最新榜"]
    readonly property var menuIcons: ["icn_close.png", "one.png", "two.png", "icn_4.png", "icn_5.png"]
    property alias menuOpen: contextMenu.visible
    property alias feeds: feedsLoader.item

    signal rankingChosen
    signal newestChosen

    function presentMenuButtonTapped() {
        contextMenu.visible = true
    }
    function dismissMenu(row) {
        contextMenu.visible = false
        switch (row) {
        case 1:
            pickFromLibraryButtonPressed()
            break
        case 2:
            pickFromCameraButtonPressed()
            break
        case 3:
            rankingChosen()
            break
        case 4:
            newestChosen()
            break
        }
    }
    function pickFromLibraryButtonPressed() {
        if (typeof CaptureController !== "undefined")
            CaptureController.pickFromLibraryButtonPressed()
    }
    function pickFromCameraButtonPressed() {
        if (typeof CaptureController !== "undefined")
            CaptureController.pickFromCameraButtonPressed()
    }

    Component.onCompleted: setleftBtnRedNum(0)

    // The album: a file dialog for photos.
    FileDialog {
        id: imagePicker
        objectName: "imagePicker"
        title: "相册"
        // (The dialog's matching minds the case: cameras write .JPG.)
        nameFilters: ["照片 (*.jpg *.jpeg *.png *.bmp *.webp *.JPG *.JPEG *.PNG *.BMP *.WEBP)"]
        onAccepted: CaptureController.libraryPicked(selectedFile)
        onRejected: CaptureController.libraryCancelled()
    }
    Connections {
        target: typeof CaptureController !== "undefined" ? CaptureController : null
        function onOpenLibrary() {
            imagePicker.currentFolder = CaptureController.libraryFolder
            imagePicker.open()
            home.fitAlbumToWidth()
        }
    }

    // Qt's dialog lays its filter and both buttons on one line; at the
    // phone's width that squeezes the filter, and with it each file's size
    // and date, into each other. The buttons get a line of their own.
    function fitAlbumToWidth() {
        const box = findItem(Overlay.overlay, it => typeof it.standardButton === "function")
        if (!box || box.Layout.row === 2)
            return
        box.Layout.row = 2
        box.Layout.column = 0
        box.Layout.columnSpan = 3
        box.Layout.alignment = Qt.AlignRight
        // The filter shows its name, not the patterns.
        const filter = findItem(box.parent, it => typeof it.indexOfValue === "function")
        if (filter) {
            filter.Layout.columnSpan = 2
            filter.Layout.rightMargin = 20
            filter.contentItem.text = imagePicker.selectedNameFilter.name
        }
        // Each file's size and date share the width of the list (the dialog
        // gives them the filter's, narrower, and on a small screen they run
        // into each other), also on the rows made later.
        const files = findItem(Overlay.overlay, it => it.objectName === "fileDialogListView")
        if (files) {
            const widen = () => {
                for (let i = 0; i < files.contentItem.children.length; ++i) {
                    const row = files.contentItem.children[i]
                    if (row.fileDetailRowWidth !== undefined)
                        row.fileDetailRowWidth = Qt.binding(() => files.width - row.rightPadding)
                }
            }
            files.contentItem.childrenChanged.connect(widen)
            widen()
        }
    }
    function findItem(it, wanted) {
        if (!it)
            return null
        if (wanted(it))
            return it
        for (let i = 0; i < it.children.length; ++i) {
            const found = findItem(it.children[i], wanted)
            if (found)
                return found
        }
        return null
    }

    // Without the feeds: a picture and a hint where they would be.
    Column {
        anchors.centerIn: parent
        visible: feedsLoader.status !== Loader.Ready
        spacing: 16
        Image {
            anchors.horizontalCenter: parent.horizontalCenter
            source: "qrc:/pictures/location.png"
            width: 160
            height: 200
        }
        Label {
            anchors.horizontalCenter: parent.horizontalCenter
            text: "点右上角的 + ，拍照或从相册选一张脸"
            color: "#888888"
            font.pixelSize: 14
        }
    }
    Loader {
        id: feedsLoader
        anchors.fill: parent
        source: AppDelegate.screenUrl("MenusFeeds")
        onLoaded: if (item.hasOwnProperty("menusVC"))
                      item.menusVC = home
    }

    // The pop-up menu, under the bar's right button.
    Item {
        id: contextMenu
        objectName: "contextMenu"
        anchors.fill: parent
        visible: false
        z: 10
        MouseArea {
            anchors.fill: parent
            onClicked: home.dismissMenu(0) // tapFootViewAction
        }
        Column {
            anchors.right: parent.right
            width: 150
            Repeater {
                model: home.menuTitles.length
                delegate: AbstractButton {
                    id: menuRow
                    required property int index
                    objectName: "menuRow" + index
                    width: 150
                    height: 50
                    background: Rectangle {
                        color: "#f0ffffff"
                        Rectangle {
                            anchors.bottom: parent.bottom
                            width: parent.width
                            height: 1
                            color: "#eeeeee"
                        }
                    }
                    contentItem: Row {
                        spacing: 12
                        leftPadding: 14
                        Image {
                            anchors.verticalCenter: parent.verticalCenter
                            source: "qrc:/pictures/" + home.menuIcons[menuRow.index]
                            width: 30
                            height: 30
                        }
                        Label {
                            anchors.verticalCenter: parent.verticalCenter
                            text: home.menuTitles[menuRow.index]
                            font.pixelSize: 16
                            color: "#333333"
                        }
                    }
                    onClicked: home.dismissMenu(index)
                }
            }
        }
    }
}
