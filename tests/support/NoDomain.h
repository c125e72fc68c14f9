#pragma once
// A desktop in no domain that cannot join one, for session tests: the
// default backend would ask this machine's own join tool.

#include "domain/AbsDomainUtil.h"
#include "templates/TemplateHandler.h"

#include <memory>

namespace ndpx::test {

class NoDomain : public AbsDomainUtil {
public:
    bool JoinDomain(const std::string&, const std::string&, const std::string&, const std::string&,
                    bool& rebootNeeded, std::uint32_t& errorCode) override {
        rebootNeeded = false;
        errorCode = domain_error::kToolMissing;
        return false;
    }
    bool IsInDomain() override { return false; }
    std::string DomainName() override { return {}; }
    void RefreshDomainInformation(bool) override {}
    std::string ErrorText(std::uint32_t) override { return "no domain in tests"; }
};

inline TemplateBackends noDomainBackends() {
    TemplateBackends b;
    b.domain = std::make_shared<NoDomain>();
    return b;
}

}  // namespace ndpx::test
