// Cost of the certificate store operations pairing and renewal make: RSA key
// generation (a distribution: it varies a lot), CSR creation, storing the
// issued certificate, finding it, retrieving it as PEM and activating a
// pending certificate. Runs on a private root in a temporary directory.

#include "certs/CertificateUtil.h"
#include "certs/linux/OpenSslCertStore.h"
#include "devca/DevCa.h"

#include <platform/Paths.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using ndpx::certs::CertificateUtil;
using ndpx::certs::OpenSslCertStore;

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v.empty() ? 0.0 : v[std::min(index, v.size() - 1)];
}

// A store on a private root, a CA, and certificates ready to be stored.
struct Bench {
    std::filesystem::path root;
    std::shared_ptr<OpenSslCertStore> store;
    std::unique_ptr<CertificateUtil> util;
    ndpx::devca::CertificateAuthority ca =
        ndpx::devca::CertificateAuthority::createRoot("Bench CA");

    struct Credentials {
        std::string container;
        std::vector<std::uint8_t> blob;
        std::string certPem;
    };
    std::vector<Credentials> ready;
    std::size_t current = 0;  // which of `ready` is stored as the current certificate

    Bench() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "certbench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        root = pattern;
        ndpx::platform::paths::setRoot(root);
        const auto rootsFile = root / "roots.pem";
        ndpx::devca::writePrivateFile(rootsFile.string(), ca.certPem());
        OpenSslCertStore::Options options;
        options.systemRootsFile = rootsFile.string();
        store = std::make_shared<OpenSslCertStore>(options);
        util = std::make_unique<CertificateUtil>(store);
        // Other certificates in "My", so that finding one is not trivial.
        for (int i = 0; i < 20; ++i) {
            auto other = ca.issueClient("other-" + std::to_string(i));
            store->ImportCertificateToStore(other.certPem, "My", "Other " + std::to_string(i), {},
                                            "", nullptr);
        }
        for (int i = 0; i < 4; ++i) {
            Credentials c;
            c.container = "{BENCH-" + std::to_string(i) + "}";
            std::string keyPem, csrPem;
            if (!util->GenerateKeyAndCSR("bench-agent", c.container, c.blob, keyPem, csrPem)) {
                std::abort();
            }
            c.certPem = ca.signCsr(csrPem)->certPem;
            ready.push_back(std::move(c));
        }
        const auto& first = ready.front();
        util->StoreCertificates(false, first.certPem, ca.certPem(), first.blob, first.container);
    }
    ~Bench() {
        ndpx::platform::paths::setRoot({});
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }

    static Bench& get() {
        static Bench bench;
        return bench;
    }
};

void BM_KeyGeneration(benchmark::State& state) {
    auto& b = Bench::get();
    std::vector<std::uint8_t> blob, pkcs1;
    for (auto _ : state) {
        if (!b.store->GenerateKeyUsingWin32API("{KEYGEN}", blob, pkcs1)) {
            state.SkipWithError("key generation failed");
        }
    }
}
// One generation per repetition: the spread between runs is what matters.
BENCHMARK(BM_KeyGeneration)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(30)
    ->ReportAggregatesOnly(true)
    ->ComputeStatistics("min", [](const std::vector<double>& v) { return percentile(v, 0.0); })
    ->ComputeStatistics("p90", [](const std::vector<double>& v) { return percentile(v, 0.9); })
    ->ComputeStatistics("max", [](const std::vector<double>& v) { return percentile(v, 1.0); });

void BM_CsrCreation(benchmark::State& state) {
    auto& b = Bench::get();
    std::vector<std::uint8_t> csr;
    for (auto _ : state) {
        if (!b.store->GenerateCSRUsingWin32API(b.ready[0].container, "bench-agent", "", "", "", "",
                                               csr)) {
            state.SkipWithError("CSR failed");
        }
    }
}
BENCHMARK(BM_CsrCreation)->Unit(benchmark::kMicrosecond);

void BM_StoreCertificates(benchmark::State& state) {
    auto& b = Bench::get();
    for (auto _ : state) {
        b.current = (b.current + 1) % b.ready.size();
        const auto& c = b.ready[b.current];
        if (!b.util->StoreCertificates(false, c.certPem, b.ca.certPem(), c.blob, c.container)) {
            state.SkipWithError("store failed");
        }
    }
}
BENCHMARK(BM_StoreCertificates)->Unit(benchmark::kMicrosecond);

void BM_FindByFriendlyAndCommonName(benchmark::State& state) {
    auto& b = Bench::get();
    for (auto _ : state) {
        const auto my = b.store->OpenCertificateStore("My");
        if (!b.store->FindCertificate(my, ndpx::certs::kClientCertFriendlyName, "BENCH-AGENT")) {
            state.SkipWithError("not found");
        }
    }
}
BENCHMARK(BM_FindByFriendlyAndCommonName)->Unit(benchmark::kMicrosecond);

void BM_RetrieveCertificatesAsPem(benchmark::State& state) {
    auto& b = Bench::get();
    ndpx::certs::ClientCredentials creds;
    for (auto _ : state) {
        if (!b.util->RetrieveCertificates(false, "bench-agent", creds)) {
            state.SkipWithError("retrieve failed");
        }
    }
}
BENCHMARK(BM_RetrieveCertificatesAsPem)->Unit(benchmark::kMicrosecond);

void BM_ActivatePending(benchmark::State& state) {
    auto& b = Bench::get();
    for (auto _ : state) {
        // A pending certificate other than the current one each time.
        state.PauseTiming();
        b.current = (b.current + 1) % b.ready.size();
        const auto& c = b.ready[b.current];
        const bool stored =
            b.util->StoreCertificates(true, c.certPem, b.ca.certPem(), c.blob, c.container);
        state.ResumeTiming();
        if (!stored || !b.util->ActivatePendingCertificate()) {
            state.SkipWithError("activation failed");
        }
    }
}
BENCHMARK(BM_ActivatePending)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
