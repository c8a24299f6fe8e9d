// The transport beside libcurl against the same nginx on loopback: fresh
// connection + TLS handshake + one ~1 KB request and 1 KB response, and bulk
// download of a 1 GiB file over plain and TLS sockets. Certificates are
// RSA-2048, made by the openssl CLI in a scratch directory with the file.
#include <curl/curl.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "net/support/certs.h"
#include "net/support/peers.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"

namespace {

using Client = utils::BaseSocketClient;

constexpr uint64_t kBigFileBytes = 1ull << 30;
constexpr size_t kSmallBodyBytes = 1024;
// Large blocks: the kernel sizes the receive window by how much the reader
// takes at a time.
constexpr size_t kBulkBlockBytes = 4 << 20;
constexpr int kTimeoutMs = 30000;

// nginx serving /1k (a 1 KB answer) and /big (a sparse 1 GiB file) over
// plain HTTP and HTTPS; torn down (file included) at exit.
class Peers {
 public:
  Peers() {
    nettest::CertFactory factory(directory_.Path(), "rsa:2048");
    const nettest::KeyPair ca = factory.CreateCa("ca");
    const nettest::KeyPair leaf = factory.Issue("leaf", ca, "localhost", "DNS:localhost");
    caFile_ = ca.certificate;

    const std::string root = directory_.File("www");
    nettest::RunCommand({"mkdir", "-p", root}, directory_.File("mkdir.log"));
    const int big = open((root + "/big").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (big < 0 || ftruncate(big, static_cast<off_t>(kBigFileBytes)) != 0) {
      throw std::runtime_error("cannot make the 1 GiB file");
    }
    close(big);

    const std::string extra = "    root " + root + ";\n    sendfile on;\n" +
                              "    location = /1k { return 200 \"" +
                              std::string(kSmallBodyBytes, 'r') + "\"; }\n";
    nettest::Nginx::Server plain;
    plain.extra = extra;
    nettest::Nginx::Server secure = plain;
    secure.certificate = leaf.certificate;
    secure.key = leaf.key;
    nginx_.reset(new nettest::Nginx(directory_.Path(), {plain, secure}));
    utils::SetEnv("CORVANE_OPENSSL_CA_FILE", caFile_);
    WarmUp();
  }

  int PlainPort() const { return nginx_->Port(0); }
  int TlsPort() const { return nginx_->Port(1); }
  const std::string& CaFile() const { return caFile_; }

 private:
  // The first pass over the file fills the page cache; neither client should
  // pay for it.
  void WarmUp() const {
    const int file = open(directory_.File("www/big").c_str(), O_RDONLY);
    std::vector<char> block(kBulkBlockBytes);
    while (file >= 0 && read(file, block.data(), block.size()) > 0) {
    }
    if (file >= 0) close(file);
  }

  nettest::TempDir directory_;
  std::string caFile_;
  std::unique_ptr<nettest::Nginx> nginx_;
};

Peers& GetPeers() {
  static Peers peers;
  return peers;
}

// Pads the request to about 1 KB with a header both clients send.
const std::string& Padding() {
  static const std::string padding(900, 'p');
  return padding;
}

// Reads one response: the head, then Content-Length body bytes, which are
// counted but not kept. Returns the body size, or -1.
int64_t ReadResponse(Client* client, std::vector<char>* block) {
  std::string head;
  size_t headEnd = std::string::npos;
  uint64_t bodyRead = 0;
  int64_t contentLength = -1;
  for (;;) {
    size_t received = 0;
    if (client->Recv(block->data(), block->size(), &received, kTimeoutMs) != Client::ErrorNone) {
      return -1;
    }
    if (headEnd == std::string::npos) {
      head.append(block->data(), received);
      headEnd = head.find("\r\n\r\n");
      if (headEnd == std::string::npos) continue;
      bodyRead = head.size() - (headEnd + 4);
      const char* field = strcasestr(head.c_str(), "\r\ncontent-length:");
      if (field == nullptr) return -1;
      contentLength = std::strtoll(field + 17, nullptr, 10);
    } else {
      bodyRead += received;
    }
    if (static_cast<int64_t>(bodyRead) >= contentLength) return contentLength;
  }
}

int64_t CorvaneFetch(int port, bool tls, const std::string& path, std::vector<char>* block) {
  Client client;
  if (client.Connect("127.0.0.1", std::to_string(port), kTimeoutMs) != Client::ErrorNone) return -1;
  if (tls && client.InitiateSecureSession("localhost", kTimeoutMs, 0, utils::tls::CertSettings()) !=
                 Client::ErrorNone) {
    return -1;
  }
  const std::string request = "GET " + path +
                              " HTTP/1.1\r\nHost: localhost\r\nX-Pad: " + Padding() +
                              "\r\nAccept: */*\r\n\r\n";
  if (utils::SendAll(&client, request.data(), request.size(), nullptr, kTimeoutMs) !=
      Client::ErrorNone) {
    return -1;
  }
  return ReadResponse(&client, block);
}

size_t CountBytes(char*, size_t size, size_t count, void* total) {
  *static_cast<uint64_t*>(total) += size * count;
  return size * count;
}

int64_t CurlFetch(int port, bool tls, const std::string& path) {
  const Peers& peers = GetPeers();
  CURL* curl = curl_easy_init();
  const std::string url =
      std::string(tls ? "https" : "http") + "://localhost:" + std::to_string(port) + path;
  const std::string resolve = "localhost:" + std::to_string(port) + ":127.0.0.1";
  curl_slist* resolveList = curl_slist_append(nullptr, resolve.c_str());
  const std::string pad = "X-Pad: " + Padding();
  curl_slist* headers = curl_slist_append(nullptr, pad.c_str());
  uint64_t total = 0;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_RESOLVE, resolveList);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_CAINFO, peers.CaFile().c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, CountBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &total);
  const CURLcode code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  curl_slist_free_all(headers);
  curl_slist_free_all(resolveList);
  return code == CURLE_OK ? static_cast<int64_t>(total) : -1;
}

void BM_TlsRequest_Corvane(benchmark::State& state) {
  const int port = GetPeers().TlsPort();
  std::vector<char> block(16 * 1024);
  for (auto _ : state) {
    if (CorvaneFetch(port, true, "/1k", &block) != static_cast<int64_t>(kSmallBodyBytes)) {
      state.SkipWithError("request failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TlsRequest_Curl(benchmark::State& state) {
  const int port = GetPeers().TlsPort();
  for (auto _ : state) {
    if (CurlFetch(port, true, "/1k") != static_cast<int64_t>(kSmallBodyBytes)) {
      state.SkipWithError("request failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

template <bool kTls>
void BM_Bulk_Corvane(benchmark::State& state) {
  const int port = kTls ? GetPeers().TlsPort() : GetPeers().PlainPort();
  std::vector<char> block(kBulkBlockBytes);
  for (auto _ : state) {
    if (CorvaneFetch(port, kTls, "/big", &block) != static_cast<int64_t>(kBigFileBytes)) {
      state.SkipWithError("download failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFileBytes));
}

template <bool kTls>
void BM_Bulk_Curl(benchmark::State& state) {
  const int port = kTls ? GetPeers().TlsPort() : GetPeers().PlainPort();
  for (auto _ : state) {
    if (CurlFetch(port, kTls, "/big") != static_cast<int64_t>(kBigFileBytes)) {
      state.SkipWithError("download failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFileBytes));
}

BENCHMARK(BM_TlsRequest_Corvane)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_TlsRequest_Curl)->UseRealTime()->MinTime(3.0);
BENCHMARK_TEMPLATE(BM_Bulk_Corvane, false)
    ->Name("BM_BulkPlain_Corvane")
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK_TEMPLATE(BM_Bulk_Curl, false)->Name("BM_BulkPlain_Curl")->UseRealTime()->Iterations(3);
BENCHMARK_TEMPLATE(BM_Bulk_Corvane, true)->Name("BM_BulkTls_Corvane")->UseRealTime()->Iterations(3);
BENCHMARK_TEMPLATE(BM_Bulk_Curl, true)->Name("BM_BulkTls_Curl")->UseRealTime()->Iterations(3);

// Prints each of our rates beside libcurl's once the runs are done.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto items = run.counters.find("items_per_second");
      const auto bytes = run.counters.find("bytes_per_second");
      if (items != run.counters.end()) rates_[run.benchmark_name()] = items->second;
      if (bytes != run.counters.end()) rates_[run.benchmark_name()] = bytes->second / 1e6;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatio(const char* what, const std::string& name, const char* unit,
                  const char* target) const {
    const auto ours = Find(name + "_Corvane");
    const auto peer = Find(name + "_Curl");
    if (ours <= 0 || peer <= 0) return;
    std::printf("%-36s ours %8.0f %s, libcurl %8.0f %s, ratio %.2f (target >= %s)\n", what, ours,
                unit, peer, unit, ours / peer, target);
  }

 private:
  double Find(const std::string& prefix) const {
    for (const auto& entry : rates_) {
      if (entry.first.rfind(prefix, 0) == 0) return entry.second;
    }
    return 0;
  }

  std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.PrintRatio("connect + TLS + 1 KB request:", "BM_TlsRequest", "req/s", "1.1");
  reporter.PrintRatio("1 GiB download, plain:", "BM_BulkPlain", "MB/s", "1.5");
  reporter.PrintRatio("1 GiB download, TLS:", "BM_BulkTls", "MB/s", "1.5");
  benchmark::Shutdown();
  curl_global_cleanup();
  return 0;
}
