#pragma once
// One request to the worker "MQTT": logged, dispatched by name, answered.

#include <mfw/MessageFrameWork.h>
#include <mfw/coreref.h>

namespace ndpx {

class MQTTService;

class MQTTServiceOp : public CORE::serviceOperation {
public:
    explicit MQTTServiceOp(MQTTService* service);
    ~MQTTServiceOp() override;

    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override;

private:
    bool dispatch(const std::wstring& operation, CORE::PropertyBag& request,
                  CORE::PropertyBag& response);

    MQTTService* service_;
};

// Posts "UnloadPlugin" for this module to the host worker "System".
void requestUnload();

}  // namespace ndpx
