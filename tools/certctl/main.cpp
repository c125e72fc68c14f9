// certctl: lists, shows and deletes the certificates of the agent's
// certificate store (the agent's client certificates with their time left),
// imports CA certificates (into "Root" to trust them) and adds CRLs for
// revocation checks, the way an operator uses the certificate manager on
// Windows. Key material is never printed.

#include "certctl/CertListing.h"
#include "certs/OpenSslUtil.h"
#include "certs/linux/OpenSslCertStore.h"

#include <mfw/log.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <json/writer.h>
#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <iterator>

namespace {

namespace certctl = ndpx::certctl;
using ndpx::certs::OpenSslCertStore;

constexpr int kFailure = 1;  // nothing found, or the store refused
constexpr int kBadInput = 2;

int fail(int code, const std::string& message) {
    std::cerr << "certctl: " << message << '\n';
    return code;
}

int runList(OpenSslCertStore& store, const std::string& storeName, bool json) {
    const auto handle = store.OpenCertificateStore(storeName);
    if (!handle) {
        return fail(kFailure, "cannot open store " + storeName + " in " + store.databaseFile());
    }
    const auto certs = store.EnumerateCertificates(handle);
    const certctl::Time now = certctl::currentTime();
    if (json) {
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "  ";
        std::cout << Json::writeString(writer, certctl::toJson(storeName, certs, now)) << '\n';
        return 0;
    }
    for (std::size_t i = 0; i < certs.size(); ++i) {
        std::cout << (i == 0 ? "" : "\n");
        certctl::printText(std::cout, certs[i], storeName, store, false, now);
    }
    if (certs.empty()) {
        std::cout << "store " << storeName << " is empty\n";
    }
    return 0;
}

int runShow(OpenSslCertStore& store, const std::string& storeName,
            const std::string& friendlyName) {
    const auto handle = store.OpenCertificateStore(storeName);
    if (!handle) {
        return fail(kFailure, "cannot open store " + storeName + " in " + store.databaseFile());
    }
    std::size_t shown = 0;
    for (const auto& c : store.EnumerateCertificates(handle)) {
        if (c.friendlyName == friendlyName) {
            std::cout << (shown++ == 0 ? "" : "\n");
            certctl::printText(std::cout, c, storeName, store, true, certctl::currentTime());
        }
    }
    if (shown == 0) {
        return fail(kFailure,
                    "no certificate named \"" + friendlyName + "\" in store " + storeName);
    }
    return 0;
}

int runDelete(OpenSslCertStore& store, const std::string& storeName,
              const std::string& friendlyName) {
    const auto handle = store.OpenCertificateStore(storeName);
    if (!handle) {
        return fail(kFailure, "cannot open store " + storeName + " in " + store.databaseFile());
    }
    std::size_t count = 0;
    for (const auto& c : store.EnumerateCertificates(handle)) {
        count += c.friendlyName == friendlyName ? 1 : 0;
    }
    if (count == 0) {
        return fail(kFailure,
                    "no certificate named \"" + friendlyName + "\" in store " + storeName);
    }
    if (!store.DeleteCertificates(storeName, friendlyName)) {
        return fail(kFailure, "cannot delete the certificates named \"" + friendlyName + "\"");
    }
    std::cout << "deleted " << count << " certificate" << (count == 1 ? "" : "s") << " named \""
              << friendlyName << "\" from store " << storeName << '\n';
    return 0;
}

bool readText(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return in.good() || in.eof();
}

// Imports every certificate of a PEM file, without a key.
int runImport(OpenSslCertStore& store, const std::string& storeName, const std::string& file,
              const std::string& friendlyName) {
    std::string text;
    if (!readText(file, text)) {
        return fail(kBadInput, "cannot read " + file);
    }
    const auto certs = ndpx::certs::x509sFromPemBundle(text);
    if (certs.empty()) {
        return fail(kBadInput, file + " holds no PEM certificate");
    }
    for (const auto& cert : certs) {
        if (!store.ImportCertificateToStore(ndpx::certs::x509ToPem(cert.get()), storeName,
                                            friendlyName, {}, "", nullptr)) {
            return fail(kFailure, "cannot import into store " + storeName);
        }
        std::cout << "imported " << ndpx::certs::nameToText(X509_get_subject_name(cert.get()))
                  << " into store " << storeName << '\n';
    }
    return 0;
}

int runAddCrl(OpenSslCertStore& store, const std::string& storeName, const std::string& file) {
    std::string text;
    if (!readText(file, text)) {
        return fail(kBadInput, "cannot read " + file);
    }
    if (!ndpx::certs::crlFromPem(text)) {
        return fail(kBadInput, file + " holds no PEM CRL");
    }
    if (!store.AddCrl(storeName, text)) {
        return fail(kFailure, "cannot add the CRL to store " + storeName);
    }
    std::cout << "added the CRL to store " << storeName << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Lists, shows, deletes and imports certificates and CRLs in the agent's "
        "certificate store."};
    app.require_subcommand(1);
    std::string root;
    bool verbose = false;
    std::string storeName = "My";
    std::string friendlyName;
    bool json = false;
    app.add_option("--root", root, "Root prefix of the machine paths (default: $NDPX_ROOT or /)");
    app.add_flag("--verbose,-v", verbose, "Print the store's log lines");

    auto* list = app.add_subcommand("list", "List the certificates of a store");
    list->add_option("--store", storeName, "Store name")->capture_default_str();
    list->add_flag("--json", json, "Print JSON for scripts");
    auto* show = app.add_subcommand("show", "Show the certificates with a friendly name");
    show->add_option("FRIENDLYNAME", friendlyName, "Friendly name")->required();
    show->add_option("--store", storeName, "Store name")->capture_default_str();
    auto* del = app.add_subcommand("delete", "Delete the certificates with a friendly name");
    del->add_option("FRIENDLYNAME", friendlyName, "Friendly name")->required();
    del->add_option("--store", storeName, "Store name")->capture_default_str();

    std::string file;
    std::string importStore = "Root";
    std::string crlStore = "CA";
    auto* import = app.add_subcommand("import", "Import CA certificates (no key) from a PEM file");
    import->add_option("FILE", file, "PEM file")->required();
    import->add_option("--store", importStore, "Store name; \"Root\" trusts them")
        ->capture_default_str();
    import->add_option("--name", friendlyName, "Friendly name");
    auto* addCrl = app.add_subcommand("add-crl", "Add a CRL (PEM) for revocation checks");
    addCrl->add_option("FILE", file, "PEM file")->required();
    addCrl->add_option("--store", crlStore, "Store name")->capture_default_str();

    CLI11_PARSE(app, argc, argv);

    if (app.count("--root") > 0) {
        if (root.empty()) {
            return fail(kBadInput, "--root must not be empty");
        }
        ndpx::platform::paths::setRoot(root);
    }
    if (import->parsed()) {
        storeName = importStore;
    } else if (addCrl->parsed()) {
        storeName = crlStore;
    }
    if (storeName.empty()) {
        return fail(kBadInput, "--store must not be empty");
    }
    // The store's own error lines explain failures; everything with -v.
    CORE::setModuleSourceName("certctl");
    CORE::setLogLevel(verbose ? CORE::kLogVerbose : CORE::kLogError);
    CORE::addLogSink(CORE::makeStderrSink());

    OpenSslCertStore store;
    if (list->parsed()) {
        return runList(store, storeName, json);
    }
    if (show->parsed()) {
        return runShow(store, storeName, friendlyName);
    }
    if (del->parsed()) {
        return runDelete(store, storeName, friendlyName);
    }
    if (import->parsed()) {
        return runImport(store, storeName, file, friendlyName);
    }
    if (addCrl->parsed()) {
        return runAddCrl(store, storeName, file);
    }
    return kBadInput;
}
