// What certctl shows of the store: the agent's current and pending client
// certificates told apart, with serial and time left; other certificates as
// they always were; the same as JSON for scripts. Dates are checked against
// OpenSSL's own reading of the certificates.

#include "certctl/CertListing.h"
#include "certs/CertificateUtil.h"
#include "certs/OpenSslUtil.h"
#include "unit/certs/CertFixture.h"

#include <sstream>

namespace ndpx::certctl {
namespace {

using namespace std::chrono_literals;
using certs::CertContext;
using certs::kClientCertFriendlyName;
using certs::kPendingClientCertFriendlyName;
using std::chrono::seconds;

// Seconds since 1970 as OpenSSL counts them.
Time timeOf(const ASN1_TIME* t) {
    const std::unique_ptr<ASN1_TIME, certs::OsslDeleter<ASN1_TIME_free>> epoch(
        ASN1_TIME_set(nullptr, 0));
    int days = 0;
    int secs = 0;
    EXPECT_EQ(ASN1_TIME_diff(&days, &secs, epoch.get(), t), 1);
    return Time{seconds{days * 86400LL + secs}};
}

// "2024-05-31 12:00:00Z" from OpenSSL's ISO 8601 printer.
std::string isoOf(const ASN1_TIME* t) {
    const certs::BioPtr bio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(ASN1_TIME_print_ex(bio.get(), t, ASN1_DTFLGS_ISO8601), 1);
    return certs::bioToString(bio.get());
}

// "2024-05-31 12:00:00 UTC", as certctl prints a date for people.
std::string dateOf(const ASN1_TIME* t) {
    std::string iso = isoOf(t);
    return iso.substr(0, iso.size() - 1) + " UTC";
}

TEST(CertctlTimeLeft, ShowsTheTwoLargestUnitsRoundedDown) {
    const Time end{seconds{1'800'000'000}};
    struct Case {
        seconds left;
        const char* text;
    };
    for (const Case& c :
         {Case{24h * 29 + 23h + 59min + 59s, "29d 23h left"}, Case{24h * 2, "2d left"},
          Case{2h + 5min + 9s, "2h 5m left"}, Case{61s, "1m 1s left"}, Case{1s, "1s left"},
          Case{0s, "expired 0s ago"}, Case{-2h, "expired 2h ago"},
          Case{-(2h + 59min + 59s), "expired 2h 59m ago"}, Case{-24h * 400, "expired 400d ago"}}) {
        EXPECT_EQ(timeLeftText(end, end - c.left), c.text) << c.left.count();
    }
}

TEST(CertctlRole, OnlyStoreMyHoldsTheAgentsClientCertificates) {
    EXPECT_EQ(roleOf("My", kClientCertFriendlyName), Role::Current);
    EXPECT_EQ(roleOf("my", kPendingClientCertFriendlyName), Role::Pending);
    EXPECT_EQ(roleOf("Root", kClientCertFriendlyName), Role::Other);
    EXPECT_EQ(roleOf("My", "Agent Connect MQTT Client Certificate "), Role::Other);
    EXPECT_EQ(roleOf("My", ""), Role::Other);
}

class CertctlListTest : public certs::test::CertTest {
protected:
    CertctlListTest() {
        // A renewal in progress: the current certificate has a month, the
        // pending one starts in two hours.
        store(false, current_, "{CUR}");
        store(true, pending_, "{PEN}");
        stored_ = store_->EnumerateCertificates(store_->OpenCertificateStore("My"));
    }

    void store(bool pending, const Client& c, const std::string& container) {
        EXPECT_TRUE(util_.StoreCertificates(pending, c.issued.certPem, pki().issuing.certPem(),
                                            c.blob, container));
    }

    const CertContext& named(const std::string& friendlyName) const {
        for (const auto& c : stored_) {
            if (c.friendlyName == friendlyName) {
                return c;
            }
        }
        ADD_FAILURE() << "no certificate named " << friendlyName;
        return stored_.front();
    }

    std::string text(const CertContext& c, Time now, bool details = false) {
        std::ostringstream out;
        printText(out, c, "My", *store_, details, now);
        return out.str();
    }

    static std::string lineOf(const std::string& text, const std::string& label) {
        const auto start = text.find("\n" + label);
        return start == std::string::npos
                   ? ""
                   : text.substr(start + 1, text.find('\n', start + 1) - start - 1);
    }

    static Time notAfterOf(const Client& c) {
        return timeOf(X509_get0_notAfter(c.issued.cert.get()));
    }

    certs::CertificateUtil util_{store_};
    Client current_ = client("e1t3_vm7", {-1h, 24h * 30});
    Client pending_ = client("e1t3_vm7", {2h, 24h * 60});
    std::vector<CertContext> stored_;
};

TEST_F(CertctlListTest, TextTellsCurrentFromPendingWithSerialAndTimeLeft) {
    X509* cert = current_.issued.cert.get();
    const Time now = notAfterOf(current_) - (24h * 29 + 23h + 30min);
    EXPECT_EQ(text(named(kClientCertFriendlyName), now),
              "Friendly name: Agent Connect MQTT Client Certificate\n"
              "Role:          current client certificate (in use)\n"
              "Subject:       CN=e1t3_vm7\n"
              "Issuer:        CN=Test Issuing CA\n"
              "Serial:        " +
                  current_.issued.serialHex +
                  "\n"
                  "Valid from:    " +
                  dateOf(X509_get0_notBefore(cert)) +
                  "\n"
                  "Valid to:      " +
                  dateOf(X509_get0_notAfter(cert)) +
                  " (29d 23h left)\n"
                  "SHA-256:       " +
                  certs::thumbprintOf(cert) + "\n");

    const std::string pending = text(named(kPendingClientCertFriendlyName), now);
    EXPECT_EQ(lineOf(pending, "Role:"),
              "Role:          pending client certificate (renewed, not yet in use)");
    EXPECT_EQ(lineOf(pending, "Serial:"), "Serial:        " + pending_.issued.serialHex);
    const Time pendingEnd = notAfterOf(pending_);
    EXPECT_EQ(lineOf(pending, "Valid to:"),
              "Valid to:      " + dateOf(X509_get0_notAfter(pending_.issued.cert.get())) + " (" +
                  timeLeftText(pendingEnd, now) + ", not yet valid)");

    // Two hours and ten minutes after its end the current one has expired.
    EXPECT_EQ(lineOf(text(named(kClientCertFriendlyName), notAfterOf(current_) + 2h + 10min),
                     "Valid to:"),
              "Valid to:      " + dateOf(X509_get0_notAfter(cert)) + " (expired 2h 10m ago)");
}

TEST_F(CertctlListTest, OtherCertificatesKeepTheirFormAndShowAddsTheKey) {
    const CertContext& ca = named("");
    const std::string listed = text(ca, currentTime());
    EXPECT_EQ(listed,
              "Friendly name: (none)\n"
              "Subject:       CN=Test Issuing CA\n"
              "Issuer:        CN=Test Root CA\n"
              "Valid from:    " +
                  dateOf(X509_get0_notBefore(pki().issuing.cert())) +
                  "\n"
                  "Valid to:      " +
                  dateOf(X509_get0_notAfter(pki().issuing.cert())) +
                  "\n"
                  "SHA-256:       " +
                  certs::thumbprintOf(pki().issuing.cert()) + "\n");

    const std::string shown = text(named(kClientCertFriendlyName), currentTime(), true);
    EXPECT_EQ(lineOf(shown, "Private key:"), "Private key:   {CUR}");
    EXPECT_NE(shown.find(current_.issued.certPem), std::string::npos) << shown;
    EXPECT_EQ(shown.find("Serial:"), shown.rfind("Serial:")) << "one serial line";
}

TEST_F(CertctlListTest, JsonGivesEveryCertificateItsRoleSerialAndSecondsToExpiry) {
    const Time now = currentTime();
    const Json::Value json = toJson("My", stored_, now);
    EXPECT_EQ(json["store"].asString(), "My");
    ASSERT_EQ(json["certificates"].size(), 3u);
    std::map<std::string, Json::Value> byRole;
    for (const auto& c : json["certificates"]) {
        byRole[c["role"].asString()] = c;
    }
    ASSERT_EQ(byRole.size(), 3u) << json.toStyledString();
    for (const auto& [role, issued] :
         {std::pair{"current", &current_.issued}, std::pair{"pending", &pending_.issued}}) {
        SCOPED_TRACE(role);
        const Json::Value& c = byRole[role];
        const ASN1_TIME* end = X509_get0_notAfter(issued->cert.get());
        const std::string iso = isoOf(end);
        EXPECT_EQ(c["subject"].asString(), "CN=e1t3_vm7");
        EXPECT_EQ(c["serial"].asString(), issued->serialHex);
        EXPECT_EQ(c["notAfter"].asString(), iso.substr(0, 10) + "T" + iso.substr(11));
        EXPECT_EQ(c["secondsToExpiry"].asInt64(), (timeOf(end) - now).count());
        EXPECT_EQ(c["sha256"].asString(), certs::thumbprintOf(issued->cert.get()));
    }
    EXPECT_EQ(byRole["current"]["friendlyName"].asString(), kClientCertFriendlyName);
    EXPECT_EQ(byRole["pending"]["friendlyName"].asString(), kPendingClientCertFriendlyName);
    EXPECT_EQ(byRole["other"]["subject"].asString(), "CN=Test Issuing CA");

    const Json::Value empty = toJson("Root", {}, now);
    EXPECT_TRUE(empty["certificates"].isArray());
    EXPECT_EQ(empty["certificates"].size(), 0u);
}

}  // namespace
}  // namespace ndpx::certctl
