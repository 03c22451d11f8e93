// windesktopheapmgr.cpp: the desktop manager on a system without desktops.
//
// The slot bookkeeping is kept whole (it works on whatever desktops the
// manager holds), but with no window stations the manager holds none and
// reports isSupported() false, so the start functions never consult it.
#include <quenlib/windesktopheapmgr.h>

#include "diagnostics/trace.h"

namespace QuenLibA500 {

CWinDesktopHeapMgr::CWinDesktopHeapMgr(unsigned short maxDesktops, unsigned short maxProcessesPerDesktop) {
  QL_TRACE(SLogger::tl_L, "CWinDesktopHeapMgr::CWinDesktopHeapMgr(): maxDesktops[%1], maxProcessesPerDesktop[%2]",
           static_cast<int>(maxDesktops), static_cast<int>(maxProcessesPerDesktop));
  QL_TRACE(SLogger::tl_L,
           "CWinDesktopHeapMgr::CWinDesktopHeapMgr(): m_bIsSupported[%1], m_bIsInitialized[%2], "
           "m_desktops.size()[%3]",
           m_bIsSupported, m_bIsInitialized, static_cast<int>(m_desktops.size()));
}

CWinDesktopHeapMgr::~CWinDesktopHeapMgr() = default;

bool CWinDesktopHeapMgr::getNextAvailableWinDesktop(SAnsiString& name, unsigned short& desktop,
                                                    unsigned short& slot) const {
  std::lock_guard<std::recursive_mutex> g(m_slotLock);
  size_t const count = m_desktops.size();
  bool found = false;
  if (count > 0) {
    size_t const start = m_nextDesktop.fetch_add(1) % count;
    for (size_t i = 0; i < count && !found; ++i) {
      size_t const d = (start + i) % count;
      auto const& slots = m_desktops[d].slots;
      for (size_t s = 0; s < slots.size(); ++s) {
        if (!slots[s].isEmpty() && slots[s].exists()) continue;
        desktop = static_cast<unsigned short>(d);
        slot = static_cast<unsigned short>(s);
        name = makeDesktopName(m_stationName, m_desktops[d].name);
        found = true;
        break;
      }
    }
  }
  QL_TRACE(SLogger::tl_L,
           "Finished CWinDesktopHeapMgr::getNextAvailableWinDesktop(): bFoundSlot[%1], o_winDesktop[%2], "
           "o_desktopId[%3], o_processId[%4]",
           found, found ? name : SAnsiString(), found ? static_cast<int>(desktop) : -1,
           found ? static_cast<int>(slot) : -1);
  return found;
}

bool CWinDesktopHeapMgr::updateAvailableWinDesktop(unsigned short desktop, unsigned short slot,
                                                   CSIProcess::Child const& child) const {
  std::lock_guard<std::recursive_mutex> g(m_slotLock);
  bool const rc = desktop < m_desktops.size() && slot < m_desktops[desktop].slots.size();
  if (rc) m_desktops[desktop].slots[slot] = child;
  QL_TRACE(SLogger::tl_L,
           "Finished CWinDesktopHeapMgr::updateAvailableWinDesktop(): rc[%1], i_desktopId[%2], i_processId[%3]", rc,
           static_cast<int>(desktop), static_cast<unsigned>(child.getpid()));
  return rc;
}

SAnsiString CWinDesktopHeapMgr::makeDesktopName(SAnsiString const& station, SAnsiString const& desktop) {
  return station + SAnsiString("\\") + desktop;
}

bool CWinDesktopHeapMgr::parseDesktopName(SAnsiString const& name, SAnsiString& station, SAnsiString& desktop) {
  char const* text = name.getString();
  unsigned const length = name.getLength();
  for (unsigned i = 0; i < length; ++i) {
    if (text[i] != '\\') continue;
    station = SAnsiString(text, i);
    desktop = SAnsiString(text + i + 1, length - i - 1);
    return true;
  }
  return false;
}

bool CWinDesktopHeapMgr::getCurrentProcessDesktopName(SAnsiString& name) {
  name = SAnsiString();
  return false;
}

}  // namespace QuenLibA500
