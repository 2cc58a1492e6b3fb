#include "vault/run_control.h"

#include <algorithm>
#include <array>

namespace sorvane::vault {
namespace {

// Whole names, by what they change.
constexpr std::array kNames = std::to_array<std::string_view>({
    // Where programs, homes and temporary files are looked for.
    "PATH",
    "HOME",
    "SHELL",
    "USER",
    "LOGNAME",
    "TMPDIR",
    "OLDPWD",
    "XDG_RUNTIME_DIR",
    "XDG_CONFIG_HOME",
    // What a shell reads or runs when it starts.
    "IFS",
    "ENV",
    "BASH_ENV",
    "ZDOTDIR",
    "CDPATH",
    "SHELLOPTS",
    "BASHOPTS",
    "PS4",
    "PROMPT_COMMAND",
    "HISTFILE",
    "INPUTRC",
    // The terminal's own data, and programs that others start.
    "TERM",
    "TERMINFO",
    "TERMCAP",
    "EDITOR",
    "VISUAL",
    "PAGER",
    "LESSOPEN",
    "LESSCLOSE",
    "MANPAGER",
    "BROWSER",
    "SSH_ASKPASS",
    "SUDO_ASKPASS",
    // Code and data that the C library loads.
    "GLIBC_TUNABLES",
    "GCONV_PATH",
    "LOCPATH",
    "NLSPATH",
    "HOSTALIASES",
    "RES_OPTIONS",
    "LOCALDOMAIN",
    "TZDIR",
    // Interpreters: options, search paths and start-up files.
    "NODE_OPTIONS",
    "NODE_PATH",
    "ELECTRON_RUN_AS_NODE",
    "DENO_DIR",
    "BUN_INSTALL",
    "PYTHONPATH",
    "PYTHONSTARTUP",
    "PYTHONHOME",
    "PYTHONUSERBASE",
    "PYTHONINSPECT",
    "PYTHONWARNINGS",
    "PYTHONBREAKPOINT",
    "VIRTUAL_ENV",
    "RUBYOPT",
    "RUBYLIB",
    "RUBYSHELL",
    "GEM_HOME",
    "GEM_PATH",
    "PERL5OPT",
    "PERL5LIB",
    "PERLLIB",
    "PERL5DB",
    "PHPRC",
    "PHP_INI_SCAN_DIR",
    "LUA_INIT",
    "LUA_PATH",
    "R_PROFILE",
    "JAVA_TOOL_OPTIONS",
    "_JAVA_OPTIONS",
    "JDK_JAVA_OPTIONS",
    "CLASSPATH",
    "MAVEN_OPTS",
    "GRADLE_OPTS",
    "DOTNET_STARTUP_HOOKS",
    "GOFLAGS",
    "GOPROXY",
    "GONOSUMDB",
    "RUSTC_WRAPPER",
    // Programs, folders and settings that git takes from its environment.
    "GIT_SSH",
    "GIT_SSH_COMMAND",
    "GIT_ASKPASS",
    "GIT_EXEC_PATH",
    "GIT_EXTERNAL_DIFF",
    "GIT_PAGER",
    "GIT_EDITOR",
    "GIT_SEQUENCE_EDITOR",
    "GIT_PROXY_COMMAND",
    "GIT_DIR",
    "GIT_TEMPLATE_DIR",
    "GIT_SSL_NO_VERIFY",
    "GIT_CURL_VERBOSE",
    // Whom TLS trusts, where its keys are written, and where traffic is sent.
    "NODE_EXTRA_CA_CERTS",
    "NODE_TLS_REJECT_UNAUTHORIZED",
    "SSLKEYLOGFILE",
    "SSL_CERT_FILE",
    "SSL_CERT_DIR",
    "OPENSSL_CONF",
    "OPENSSL_ENGINES",
    "OPENSSL_MODULES",
    "CURL_CA_BUNDLE",
    "REQUESTS_CA_BUNDLE",
    "CURL_HOME",
    "HTTP_PROXY",
    "HTTPS_PROXY",
    "ALL_PROXY",
    "NO_PROXY",
    "http_proxy",
    "https_proxy",
    "all_proxy",
    "no_proxy",
    // Files that instrumented programs write.
    "ASAN_OPTIONS",
    "LLVM_PROFILE_FILE",
});

// Families of names.
constexpr std::array kPrefixes = std::to_array<std::string_view>({
    "LD_",
    "DYLD_",
    "MALLOC_",
    "BASH_FUNC_",
    "NPM_CONFIG_",
    "npm_config_",
    "YARN_",
    "BUNDLE_",
    "PIP_",
    "POETRY_",
    "CARGO_",
    "COMPlus_",
    "CORECLR_",
    "GIT_CONFIG",
    "GIT_TRACE",
    "SORVANE_",
});

}  // namespace

bool isRunControlName(std::string_view name) {
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end() ||
         std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [&](std::string_view prefix) { return name.starts_with(prefix); });
}

}  // namespace sorvane::vault
