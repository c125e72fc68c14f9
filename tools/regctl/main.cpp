// regctl: reads, writes, lists, deletes and imports settings in the agent's
// settings store, the way an operator uses regedit on Windows.

#include "regctl/RegFile.h"

#include <platform/Paths.h>
#include <platform/SettingsStore.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace {

using ndpx::platform::SettingsStore;
using ndpx::platform::SettingValue;

constexpr int kFailure = 1;  // missing value or key, or the store refused
constexpr int kBadInput = 2;

int fail(int code, const std::string& message) {
    std::cerr << "regctl: " << message << '\n';
    return code;
}

std::unique_ptr<SettingsStore> openStore(std::string& file) {
    file = ndpx::platform::paths::settingsStoreFile().string();
    std::string error;
    auto store = ndpx::platform::openSqliteSettingsStore(file, error);
    if (!store) {
        std::cerr << "regctl: cannot open the settings store: " << error << '\n';
    }
    return store;
}

std::string displayName(const std::string& name) {
    return name.empty() ? "(Default)" : name;
}

std::string describe(const SettingValue& v) {
    char hex[16];
    switch (v.type) {
        case SettingValue::Type::String:
            return "REG_SZ    " + v.text;
        case SettingValue::Type::Dword:
            std::snprintf(hex, sizeof hex, "0x%08x", v.dword);
            return std::string("REG_DWORD    ") + hex + " (" + std::to_string(v.dword) + ")";
        case SettingValue::Type::MultiString: {
            // \0 between the strings, as they are stored: commas may be data.
            std::string joined;
            for (std::size_t i = 0; i < v.multi.size(); ++i) {
                joined += (i == 0 ? "" : "\\0") + v.multi[i];
            }
            return "REG_MULTI_SZ    " + joined;
        }
    }
    return {};
}

int runGet(SettingsStore& store, const std::string& key, const std::string& name) {
    const auto value = store.get(key, name);
    if (!value) {
        return fail(kFailure,
                    "value \"" + name + "\" not found in " + ndpx::platform::normalizeKeyPath(key));
    }
    switch (value->type) {
        case SettingValue::Type::String:
            std::cout << value->text << '\n';
            break;
        case SettingValue::Type::Dword:
            std::cout << value->dword << '\n';
            break;
        case SettingValue::Type::MultiString:
            for (const auto& s : value->multi) {
                std::cout << s << '\n';
            }
            break;
    }
    return 0;
}

int runSet(SettingsStore& store, const std::string& key, const std::string& name,
           const std::vector<std::string>& values, const std::string& type) {
    SettingValue value;
    if (type == "multi") {
        value = SettingValue::ofMulti(values);
    } else {
        if (values.size() != 1) {
            return fail(kBadInput, "a " + type + " value takes exactly one VALUE argument, got " +
                                       std::to_string(values.size()));
        }
        if (type == "dword") {
            const auto number = ndpx::regctl::parseDwordArgument(values.front());
            if (!number) {
                return fail(kBadInput, "'" + values.front() +
                                           "' is not a dword (decimal or 0x hex, 0 to 0xffffffff)");
            }
            value = SettingValue::ofDword(*number);
        } else {
            value = SettingValue::ofString(values.front());
        }
    }
    if (ndpx::platform::normalizeKeyPath(key).empty()) {
        return fail(kBadInput, "the key must not be empty");
    }
    if (!store.set(key, name, value)) {
        return fail(kFailure, "cannot write \"" + name + "\" in " + key);
    }
    return 0;
}

int runList(SettingsStore& store, const std::string& key) {
    const std::string k = ndpx::platform::normalizeKeyPath(key);
    if (!store.keyExists(k)) {
        return fail(kFailure, "key " + k + " not found");
    }
    std::cout << k << '\n';
    for (const auto& [name, value] : store.listValues(k)) {
        std::cout << "    " << displayName(name) << "    " << describe(value) << '\n';
    }
    const auto subkeys = store.listSubkeys(k);
    if (!subkeys.empty()) {
        std::cout << '\n';
    }
    for (const auto& sub : subkeys) {
        std::cout << k << '\\' << sub << '\n';
    }
    return 0;
}

int runDelete(SettingsStore& store, const std::string& key, const std::string* name) {
    const std::string k = ndpx::platform::normalizeKeyPath(key);
    if (k.empty()) {
        return fail(kBadInput, "the key must not be empty");
    }
    if (name != nullptr) {
        if (!store.get(k, *name)) {
            return fail(kFailure, "value \"" + *name + "\" not found in " + k);
        }
        if (!store.remove(k, *name)) {
            return fail(kFailure, "cannot delete \"" + *name + "\" in " + k);
        }
        return 0;
    }
    if (!store.keyExists(k)) {
        return fail(kFailure, "key " + k + " not found");
    }
    if (!store.removeKey(k)) {
        return fail(kFailure, "cannot delete key " + k);
    }
    return 0;
}

int runImport(SettingsStore& store, const std::string& file) {
    std::string content;
    if (file == "-") {
        content.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            return fail(kBadInput, "cannot read " + file);
        }
        std::ostringstream buffer;
        buffer << in.rdbuf();
        content = buffer.str();
    }
    std::vector<ndpx::regctl::RegOperation> operations;
    std::string error;
    if (!ndpx::regctl::parseRegFile(content, operations, error)) {
        return fail(kBadInput, file + ": " + error);
    }
    if (!ndpx::regctl::applyRegOperations(store, operations, error)) {
        return fail(kFailure, file + ": " + error);
    }
    std::cout << "imported " << operations.size() << " entries from " << file << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Reads and writes the agent's settings store."};
    app.require_subcommand(1);
    std::string root;
    app.add_option("--root", root, "Root prefix of the machine paths (default: $NDPX_ROOT or /)");

    std::string key;
    std::string name;
    std::vector<std::string> values;
    std::string type = "string";
    std::string file;

    auto* get = app.add_subcommand("get", "Print one value");
    get->add_option("KEY", key, "Key path, e.g. 'HKLM\\Software\\Vendor'")->required();
    get->add_option("NAME", name, "Value name ('' for the default value)")->required();

    auto* set = app.add_subcommand("set", "Write one value (creates the key)");
    set->add_option("KEY", key, "Key path")->required();
    set->add_option("NAME", name, "Value name")->required();
    set->add_option("VALUE", values, "The value; one argument per string for multi")
        ->expected(0, -1);
    set->add_option("--type,-t", type, "Value type")
        ->check(CLI::IsMember({"string", "dword", "multi"}));

    auto* list = app.add_subcommand("list", "List the values and subkeys of a key");
    list->add_option("KEY", key, "Key path")->required();

    auto* del = app.add_subcommand("delete", "Delete a value, or a key with everything below it");
    del->add_option("KEY", key, "Key path")->required();
    auto* delName = del->add_option("NAME", name, "Value name; without it the key is deleted");

    auto* import = app.add_subcommand("import", "Apply a .reg file ('-' reads standard input)");
    import->add_option("FILE", file, "The .reg file")->required();

    CLI11_PARSE(app, argc, argv);

    if (app.count("--root") > 0) {
        if (root.empty()) {
            return fail(kBadInput, "--root must not be empty");
        }
        ndpx::platform::paths::setRoot(root);
    }
    std::string storeFile;
    auto store = openStore(storeFile);
    if (!store) {
        return kFailure;
    }
    if (get->parsed()) {
        return runGet(*store, key, name);
    }
    if (set->parsed()) {
        return runSet(*store, key, name, values, type);
    }
    if (list->parsed()) {
        return runList(*store, key);
    }
    if (del->parsed()) {
        return runDelete(*store, key, delName->count() > 0 ? &name : nullptr);
    }
    if (import->parsed()) {
        return runImport(*store, file);
    }
    return kBadInput;
}
