#include "pelorus/listen/tls_peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "support/skein_peer.h"

namespace support {
namespace {

void check(bool ok) {
  if (!ok) throw std::runtime_error(ERR_error_string(ERR_get_error(), nullptr));
}

/// Self-signed with SHA-1, a short key, another name, and out of date.
void use_bad_certificate(SSL_CTX* context) {
  constexpr std::size_t KEY_BITS = 1024;
  EVP_PKEY* key = EVP_RSA_gen(KEY_BITS);
  X509* certificate = X509_new();
  check(key != nullptr && certificate != nullptr);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -7200);
  X509_gmtime_adj(X509_getm_notAfter(certificate), -3600);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("elsewhere"), -1, -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
  X509_set_pubkey(certificate, key);
  check(X509_sign(certificate, key, EVP_sha1()) > 0);
  check(SSL_CTX_use_certificate(context, certificate) == 1);
  check(SSL_CTX_use_PrivateKey(context, key) == 1);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

SSL_CTX* context() {
  static const auto made = [] {
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> fresh(SSL_CTX_new(TLS_server_method()),
                                                            &SSL_CTX_free);
    check(fresh != nullptr);
    SSL_CTX_set_security_level(fresh.get(), 0);
    SSL_CTX_set_num_tickets(fresh.get(), 0);  // nothing is sent but what a test says
    use_bad_certificate(fresh.get());
    return fresh;
  }();
  return made.get();
}

}  // namespace

TlsPeer::TlsPeer(skein::Socket socket)
    : ssl_(SSL_new(context()), &SSL_free), socket_(std::move(socket)) {
  check(ssl_ && SSL_set_fd(ssl_.get(), socket_.descriptor()) == 1);
  const int on = 1;  // what is sent is there at once
  ::setsockopt(socket_.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool TlsPeer::handshake() {
  ERR_clear_error();
  const int result = SSL_accept(ssl_.get());
  const int error = SSL_get_error(ssl_.get(), result);
  check(result == 1 || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE);
  return result == 1;
}

std::string TlsPeer::receive() {
  std::string text;
  std::array<char, 4096> buffer;
  ERR_clear_error();
  for (int count; (count = SSL_read(ssl_.get(), buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

bool TlsPeer::at_end() {
  char byte;
  return ::recv(socket_.descriptor(), &byte, 1, MSG_PEEK) == 0 ||
         (receive(), SSL_get_shutdown(ssl_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
}

void TlsPeer::send(std::string_view text) {
  ERR_clear_error();
  check(SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size())) > 0);
}

void TlsPeer::close() {
  SSL_shutdown(ssl_.get());
  ::shutdown(socket_.descriptor(), SHUT_WR);
}

void TlsPeer::reset() { support::reset(socket_); }

}  // namespace support
