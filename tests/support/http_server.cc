#include "support/http_server.h"

#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <utility>

#include "support/skein_peer.h"

namespace support {
namespace {

std::vector<std::uint16_t> several;
std::atomic<bool> hanging = false;

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

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

HttpServer::HttpServer(Mode mode) : socket_(skein::Socket::stream(AF_INET)) {
  skein::bind_tcp(socket_, "127.0.0.1", 0);
  if (mode == Mode::REFUSES) return;
  skein::listen(socket_, mode == Mode::HANGS ? 0 : 16);
  if (mode == Mode::LISTENS) return;
  filler_ = skein::Socket::stream(AF_INET);
  const sockaddr_in address = loopback(port());
  ::connect(filler_.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::uint16_t HttpServer::port() const { return static_cast<std::uint16_t>(bound_port(socket_)); }

skein::Socket HttpServer::accept() const {
  return skein::Socket(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK));
}

std::vector<HttpServer::Request> HttpServer::requests() {
  while (auto accepted = accept()) connections_.push_back({std::move(accepted), ""});
  std::vector<Request> whole;
  connections_.remove_if([&whole](Connection& connection) {
    auto& [socket, received] = connection;
    received += receive(socket);
    char byte = 0;
    if (::recv(socket.descriptor(), &byte, 1, MSG_PEEK) == 0) return true;
    const auto head_end = received.find("\r\n\r\n");
    const auto length = received.find("ontent-Length: ");
    if (head_end == received.npos || length == received.npos) return false;
    const std::string body = received.substr(head_end + 4);
    if (body.size() < std::stoul(received.substr(length + 15))) return false;
    whole.push_back({&socket, body});
    received.clear();
    return false;
  });
  return whole;
}

std::string receive(const skein::Socket& peer) {
  std::string text;
  std::array<char, 65536> buffer;
  for (ssize_t count; (count = ::recv(peer.descriptor(), buffer.data(), buffer.size(), 0)) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

void answer(const skein::Socket& peer, std::string_view text) {
  const ssize_t sent = ::send(peer.descriptor(), text.data(), text.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(text.size())) throw std::runtime_error("the answer is not out");
}

void resolve_several_to(std::vector<std::uint16_t> ports) { several = std::move(ports); }

HangingLookups::HangingLookups() { hanging = true; }
HangingLookups::~HangingLookups() {
  hanging = false;
  hanging.notify_all();
}

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

/// Stands before the C library's, for libuv too: names of this file's need no name server.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                           addrinfo** found) {
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = host == nullptr ? "" : host;
  const bool numeric = (hints->ai_flags & AI_NUMERICHOST) != 0;
  if (name == "hangs.test" && !numeric) support::hanging.wait(true);
  if (name == "hangs.test") return EAI_NONAME;
  if (name != "several.test" || numeric) return real(host, port, hints, found);
  for (const auto each : support::several) {
    if (const int error = real("127.0.0.1", std::to_string(each).c_str(), hints, found))
      return error;
    found = &(*found)->ai_next;
  }
  return 0;
}
