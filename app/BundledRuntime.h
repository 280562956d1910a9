#pragma once

#include <QString>

// Points the libraries inside the process (OpenSSL, fontconfig) at the program's own data
// files when it ships them, so an installed Velix doesn't depend on the machine's.
namespace BundledRuntime {

// The installed resource directory: share/velix beside the executable's bin/.
QString resourceDirectory();
// Sets SSL_CERT_FILE, OPENSSL_CONF, FONTCONFIG_PATH and FONTCONFIG_FILE, each only when unset,
// and only when "cacert.pem" lies in the resource directory; otherwise sets nothing at all.
void configure();
void configure(const QString &resourceDir);

} // namespace BundledRuntime
