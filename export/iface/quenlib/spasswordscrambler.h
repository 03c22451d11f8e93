// spasswordscrambler.h: stored passwords kept unreadable at rest.
//
// Products keep passwords in their configuration (a SOCKS server's, the
// mail, FTP and SFTP accounts'). `SPasswordScrambler` turns such a password
// into text that is safe to store and back:
//
//   SAnsiString stored;
//   if (SPasswordScrambler::Scramble("s3cret", stored))
//     registry.WriteValue("Password", stored);          // "QS1:01a4..."
//   SAnsiString password;
//   if (SPasswordScrambler::Unscramble(registry.ReadValue("Password"), password))
//     connect(user, password);
//
// The password is encrypted (AES-256-GCM) with a machine key: 32 random
// bytes in the file "scramble.key", mode 0600, made on first use beside the
// registry store (the directory of $QUENLIB_REGISTRY_DIR, else
// /var/lib/quenlib for root, else ${XDG_CONFIG_HOME:-~/.config}/quenlib).
// Whoever can read that file can read the passwords: it protects a copied
// configuration, a backup or a screen, not the machine itself (see
// docs/security.md).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API SPasswordScrambler {
 public:
  SPasswordScrambler() = delete;

  // "QS1:" and the sealed password in hexadecimal; false when the machine
  // key cannot be read or made.
  static bool Scramble(SAnsiString const& password, SAnsiString& scrambled);
  // False for text not made by Scramble with this machine's key, or changed.
  static bool Unscramble(SAnsiString const& scrambled, SAnsiString& password);
  // True for text in the scrambled form (whatever its key).
  static bool IsScrambled(SAnsiString const& text);
  // Where the machine key is (or will be made).
  static SAnsiString KeyFilePath();
};

}  // namespace QuenLibA500
