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

// Text and buffers: strings of every flavour, code sets and UTF, integers as
// text, tokenizers, byte buffers.
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
#include <quenlib/sstringhelper.h>
#include <quenlib/slocaleinfo.h>

// Concurrency: critical sections, reader-writer locks, semaphores, events,
// timers, stoppable named threads.
#include <quenlib/critsec.h>
#include <quenlib/rwlock.h>
#include <quenlib/ssemaphore.h>
#include <quenlib/sevent.h>
#include <quenlib/stimer.h>
#include <quenlib/sthread.h>

// Diagnostics: the logger front end, trace options, scope traces, event
// log files, command-line argument lists.
#include <quenlib/slogger.h>
#include <quenlib/strace.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/seventlog.h>
#include <quenlib/logplugin.h>
#include <quenlib/sstackwalk.h>

// Time: dates, times, spans, zones and formatting by pattern.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>
#include <quenlib/sdatetimestring.h>

// URLs and web text: percent-encoding and pairs, object URLs, query
// patterns, HTML encoding and the map they share.
#include <quenlib/simap.h>
#include <quenlib/nvpairs.h>
#include <quenlib/oburl.h>
#include <quenlib/qrysstring.h>
#include <quenlib/webencode.h>
#include <quenlib/siuri.h>

// Files: files, file-system operations and their exceptions.
#include <quenlib/sfile.h>

// System services: environment, system information, shared libraries,
// compression, XML documents.
#include <quenlib/senvironment.h>
#include <quenlib/ssysteminfo.h>
#include <quenlib/DllWrap.h>
#include <quenlib/scompression.h>
#include <quenlib/sxmldocument.h>

// Configuration: the registry on its embedded store, .reg files,
// configuration files and the configuration-manager record.
#include <quenlib/regapi.h>
#include <quenlib/regfile.h>
#include <quenlib/registry.h>
#include <quenlib/configfilereader.h>
#include <registrykeys/configmgr_regkeys.h>

// Security and identity: digests, authenticated encryption, GUIDs,
// stored passwords.
#include <quenlib/scrypt.h>
#include <quenlib/sguid.h>
#include <quenlib/spasswordscrambler.h>

// Resources and languages: localised resource strings and HTML templates
// from catalogs, installed languages.
#include <quenlib/sresourcecatalog.h>

// Network clients: sockets and TCP connections with TLS, SOCKS server
// settings and socks URIs, the SMTP, FTP and SFTP clients.
#include <quenlib/csisocket.h>
#include <quenlib/csitcpsocket.h>
#include <quenlib/csismtpmail.h>
#include <quenlib/csiftp.h>
#include <quenlib/csisftp.h>
#include <quenlib/sockshelpers.h>
#include <registrykeys/registrysocksserver.h>

// Processes: framed pipes to child processes, starting, watching and
// stopping children.
#include <quenlib/csipipe.h>
#include <quenlib/csiprocess.h>
#include <quenlib/windesktopheapmgr.h>

// Server framework: the server, its controller, the systemd service and the
// diagnostic console.
#include <quenlib/siserver.h>
#include <quenlib/siservice.h>
#include <quenlib/siconsole.h>
