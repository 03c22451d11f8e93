// quenlib.h: the umbrella header; includes every public class family.
//
//   #include <quenlib/quenlib.h>
//   using namespace QuenLibA500;
//
//   SAnsiString name("world");
//   SAnsiString text = SAnsiString("hello, ") + name;
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>
#include <quenlib/version.h>

// Text and buffers
#include <quenlib/sinterlocked.h>
#include <quenlib/sstring.h>
#include <quenlib/refcount.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/simmutablebuffer.h>
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>
#include <quenlib/stringconv.h>
#include <quenlib/neutralstr.h>
#include <quenlib/strtok.h>
#include <quenlib/siarray.h>

// Time
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>
#include <quenlib/sdatetimestring.h>

// URLs and web text
#include <quenlib/simap.h>
#include <quenlib/nvpairs.h>
#include <quenlib/oburl.h>
#include <quenlib/qrysstring.h>
#include <quenlib/webencode.h>

// Files and configuration
#include <quenlib/regapi.h>
#include <quenlib/regfile.h>
#include <quenlib/registry.h>
#include <quenlib/configfilereader.h>
#include <quenlib/sfile.h>
#include <registrykeys/configmgr_regkeys.h>

// Diagnostics
#include <quenlib/slogger.h>
#include <quenlib/strace.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/seventlog.h>
#include <quenlib/logplugin.h>
