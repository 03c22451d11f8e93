// windesktopheapmgr.h: spreading children over private desktops.
//
// On the original system many children on one desktop exhausted its heap,
// so children were spread over the desktops of a private window station.
// Linux has no window stations or desktops: `isSupported()` is false, the
// manager holds no desktops, and the start functions of CSIProcess start
// children normally when given one. The name helpers work as they always
// did, so callers that build or log desktop names keep working:
//
//   CWinDesktopHeapMgr* mgr = CSIProcess::createWinDesktopHeapMgr(4, 16);
//   mgr->isSupported();                                     // false here
//   SAnsiString name = CWinDesktopHeapMgr::makeDesktopName("ws#1", "dk#0");
//   SAnsiString station, desktop;
//   CWinDesktopHeapMgr::parseDesktopName(name, station, desktop);
//   CSIProcess::freeWinDesktopHeapMgr(mgr);
#pragma once

#include <quenlib/csiprocess.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace QuenLibA500 {

class QUENLIB_API CWinDesktopHeapMgr {
 public:
  CWinDesktopHeapMgr(unsigned short maxDesktops, unsigned short maxProcessesPerDesktop);
  virtual ~CWinDesktopHeapMgr();
  CWinDesktopHeapMgr(CWinDesktopHeapMgr const&) = delete;
  CWinDesktopHeapMgr& operator=(CWinDesktopHeapMgr const&) = delete;

  bool isSupported() const { return m_bIsSupported; }
  bool isInitialized() const { return m_bIsInitialized; }
  SAnsiString getWindowStationName() const { return m_stationName; }
  int getDesktopCount() const { return static_cast<int>(m_desktops.size()); }

  // A free slot (empty, or its child has ended), going round from the next
  // desktop in turn; false when every slot is taken or there are none.
  bool getNextAvailableWinDesktop(SAnsiString& name, unsigned short& desktop, unsigned short& slot) const;
  // Records the child started in a slot; false for a slot that does not exist.
  bool updateAvailableWinDesktop(unsigned short desktop, unsigned short slot, CSIProcess::Child const& child) const;

  // station + "\\" + desktop.
  static SAnsiString makeDesktopName(SAnsiString const& station, SAnsiString const& desktop);
  // Splits at the first "\\"; false when there is none.
  static bool parseDesktopName(SAnsiString const& name, SAnsiString& station, SAnsiString& desktop);
  // The desktop this process runs on; false here, where there are none.
  static bool getCurrentProcessDesktopName(SAnsiString& name);

 private:
  struct Desktop {
    SAnsiString name;
    std::vector<CSIProcess::Child> slots;
  };

  bool m_bIsSupported = false;
  bool m_bIsInitialized = false;
  SAnsiString m_stationName;
  mutable std::vector<Desktop> m_desktops;
  mutable std::recursive_mutex m_slotLock;
  mutable std::atomic<unsigned> m_nextDesktop{0};
};

}  // namespace QuenLibA500
