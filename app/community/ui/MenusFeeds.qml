// The home screen's feeds: a pager whose first page is the newest feed with
// the top item as its header and whose second page, reachable only after
// "容点榜" was chosen, is the ranking. Also the account refresh with the
// unread badge and the one-time password prompt.
import QtQuick
import Rongdian

Item {
    id: feeds
    objectName: "MenusFeeds"
    property var menusVC: null
    property var arrHead: []
    // Each top item gets a card of its own: nothing of the last one's votes
    // (green buttons, its "差(n)") carries over. The old card goes first.
    property bool headerBuilt: true
    function showTop(record) {
        headerBuilt = false
        arrHead = [record]
        headerRebuild.restart()
    }
    Timer {
        id: headerRebuild
        interval: 0
        onTriggered: feeds.headerBuilt = true
    }
    property int pages: 1
    property alias aScrollView: pager
    property alias showTableView: showTable
    property alias valueTableView: valueTable
    property alias showView: showView
    property alias valueView: valueView

    function reloadShowTableview(quiet) {
        if (!quiet)
            ProgressHud.showWithStatus("加载中...")
        showTable.finishRefreshControl()
        showTable.refreshData()
        loadFristPoint()
    }
    function reloadValuTableView() {
        valueTable.finishRefreshControl()
        valueTable.refreshData()
    }
    function loadFristPoint() {
        ItemActions.loadFristPoint()
    }
    property int userRequest: 0
    function loadSetData() {
        userRequest = Session.refreshUser()
    }
    function userLoaded(user) {
        if (feeds.menusVC)
            feeds.menusVC.setleftBtnRedNum(user.numComments)
        if (user.user_type === "payment" && !Session.firstLoginDone)
            AlertCenter.alert("容点，感谢20亿次的使用", "由于更换更大性能的服务器\n请主人重新设置密码哟：）",
                         ["去设置"])
    }
    function openItem(item) {
        AppDelegate.pushScreen("CommentViewController", {
                           "itemInfo": item
                       })
    }
    function openPerson(item) {
        AppDelegate.pushScreen("MyFaceViewController", {
                           "itemId": item.itemId,
                           "userLikeName": item.userlikename
                       })
    }
    function scrollPager(page) {
        pager.page = page
        pager.contentX = page * pager.width
    }

    Connections {
        target: ItemActions
        // The lists' rows and the top item hold an item's numbers; the cells
        // showing them follow.
        function onItemChanged(changed) {
            showTable.updateRecords("itemId", changed)
            valueTable.updateRecords("itemId", changed)
            if (feeds.arrHead.length > 0 && changed.itemId === feeds.arrHead[0].itemId)
                feeds.arrHead = [Object.assign({}, feeds.arrHead[0], changed)]
        }
        function onTopItemChanged() {
            feeds.showTop(ItemActions.topItem)
        }
    }
    // The badge is the signed-in account's: any refresh of it (a log-in, a
    // sign-up, a push) brings its count; a log-out takes it away.
    Connections {
        target: Session
        function onUserRefreshed(request, user) {
            if (request === feeds.userRequest)
                feeds.userLoaded(user)
            else if (feeds.menusVC)
                feeds.menusVC.setleftBtnRedNum(user.numComments)
        }
        function onSessionChanged() {
            if (!Session.loggedIn && feeds.menusVC)
                feeds.menusVC.setleftBtnRedNum(0)
        }
    }
    Connections {
        target: Notices
        // A photo its owner deleted leaves both feeds; when it was the top
        // item, the next one takes its place.
        function onItemDleteSucceed(itemId) {
            showTable.removeRecords("itemId", itemId)
            valueTable.removeRecords("itemId", itemId)
            if (feeds.arrHead.length > 0 && feeds.arrHead[0].itemId === itemId) {
                feeds.arrHead = []
                feeds.loadFristPoint()
            }
        }
    }
    ShowTableView {
        id: showTable
        onPagerPageRequested: page => feeds.scrollPager(page)
        // Fresh rows (a pull too) hold the top item's numbers as the server
        // counts them now: the card shows them.
        onRowsReplaced: {
            if (feeds.arrHead.length === 0)
                return
            const top = feeds.arrHead[0]
            for (let i = 0; i < showTable.count; ++i) {
                const row = FeedRows.toMap(showTable.get(i))
                if (row.itemId !== top.itemId)
                    continue
                if (row.like !== top.like || row.unlike !== top.unlike
                        || row.lookscorebasis !== top.lookscorebasis
                        || row.commentNum !== top.commentNum)
                    feeds.showTop(row)
                return
            }
        }
    }
    ValueTableView {
        id: valueTable
        onPagerPageRequested: page => feeds.scrollPager(page)
    }

    Connections {
        target: feeds.menusVC
        ignoreUnknownSignals: true
        function onRankingChosen() {
            feeds.pages = 2
            feeds.reloadValuTableView()
        }
        function onNewestChosen() {
            feeds.reloadShowTableview(false)
        }
    }
    Connections {
        target: Notices
        // A new photo may be the new top item as well.
        function onSharMessageSuccded() {
            showTable.refreshData()
            showView.positionViewAtBeginning()
            feeds.loadFristPoint()
        }
        function onClearAllNewsNum() {
            if (feeds.menusVC)
                feeds.menusVC.setleftBtnRedNum(null)
        }
        function onUpdataNewsNum() {
            feeds.loadSetData()
        }
    }
    Connections {
        target: AlertCenter
        function onAlertAnswered(title, index) {
            if (title === "容点，感谢20亿次的使用" && index === 0)
                AppDelegate.pushScreen("SetViewController", {
                                   "showType": "enableFristLogin2.3"
                               })
        }
    }

    Flickable {
        id: pager
        objectName: "aScrollView"
        anchors.fill: parent
        contentWidth: width * feeds.pages
        contentHeight: height
        flickableDirection: Flickable.HorizontalFlick
        boundsBehavior: Flickable.StopAtBounds
        clip: true
        // The page shown: a new width (a turned phone, a resized window) keeps
        // it whole in view.
        property int page: 0
        property bool resizing: false
        onMovementEnded: {
            page = Math.round(contentX / width)
            contentX = page * width
        }
        onWidthChanged: {
            resizing = true
            contentX = page * width
            resizing = false
        }
        Behavior on contentX {
            enabled: !pager.moving && !pager.resizing
            NumberAnimation { duration: 200 }
        }

        FeedList {
            id: showView
            objectName: "showTableView"
            x: 0
            width: pager.width
            height: pager.height
            table: showTable
            // Nothing shown yet: the whole start-up load again, top item too.
            ownRetry: true
            onRetryTapped: {
                if (showTable.count === 0)
                    feeds.reloadShowTableview(true)
                else
                    showTable.retry()
            }
            // The top item; a tap anywhere on it opens its page.
            headerRecord: feeds.arrHead.length > 0 ? feeds.arrHead[0] : null
            header: feeds.arrHead.length > 0 && feeds.headerBuilt ? headerComponent : null
            delegate: ShowCell {
                required property var modelData
                width: ListView.view.width
                item: FeedRows.toMap(modelData)
                onTapped: (ListView.view as FeedList).rowTapped(item)
                onHeadTapped: (ListView.view as FeedList).rowHeadTapped(item)
            }
            onRowTapped: item => feeds.openItem(item)
            onRowHeadTapped: item => feeds.openPerson(item)
        }
        FeedList {
            id: valueView
            objectName: "valueTableView"
            x: pager.width
            width: pager.width
            height: pager.height
            table: valueTable
            delegate: ShowCell {
                required property int index
                required property var modelData
                width: ListView.view.width
                ranking: true
                row: index
                item: FeedRows.toMap(modelData)
                onTapped: (ListView.view as FeedList).rowTapped(item)
                onHeadTapped: (ListView.view as FeedList).rowHeadTapped(item)
            }
            onRowTapped: item => feeds.openItem(item)
            onRowHeadTapped: item => feeds.openPerson(item)
        }
    }
    Component {
        id: headerComponent
        ShowCell {
            width: ListView.view.width
            header: true
            item: (ListView.view as FeedList).headerRecord
            color: "white"
            onTapped: (ListView.view as FeedList).rowTapped(item)
            onHeadTapped: (ListView.view as FeedList).rowTapped(item)
        }
    }

    Component.onCompleted: {
        reloadShowTableview(true)
        if (Session.canLoadAccount)
            loadSetData()
    }
}
