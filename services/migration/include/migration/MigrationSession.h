#pragma once
// What a migration needs of the MQTT session: the few manager operations the
// commands drive. The plug-in implements it over the process's manager, so
// the session library never depends on the migration.

namespace ndpx::migration {

class MigrationSession {
public:
    virtual ~MigrationSession() = default;

    virtual bool Start() = 0;
    virtual bool Stop() = 0;
    virtual bool IsStarted() = 0;
    virtual bool IsConnected() = 0;
    // The bootstrap was written while the session runs: it is picked up now
    // rather than at the session's next look.
    virtual void BootstrapWritten() = 0;
    // Makes MQTT the agent's message transport (the commit's hand-over).
    virtual bool RegisterMessageTransport() = 0;
    // The agent needs a new bootstrap; its pairing data is dropped.
    virtual void RevertToRequireBootstrap() = 0;
};

}  // namespace ndpx::migration
