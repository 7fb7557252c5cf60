// A 100 MB file copied into a guest by Ansible's copy module over the tervain connection plugin,
// against `tervainctl cp` of the same file to the same agent, in the same run.
//
// ansible_copy_s is the wall time of `ansible HOST -m copy` (the plugin speaking the wire from
// Python; Ansible's own start, checksum and move included), ansible_ping_s the same for the ping
// module (Ansible's fixed cost for one task), tervainctl_cp_s the wall time of `tervainctl cp`.
// ansible_copy_vs_cp is ansible_copy_s over tervainctl_cp_s. Best of three alternating runs.
// Nothing is printed when Ansible is not installed.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "agent_process.h"
#include "bench.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint64_t kFileBytes = 100'000'000;

bool writeRandomFile(const std::string& path, std::uint64_t size) {
  std::ofstream out(path, std::ios::binary);
  std::mt19937_64 generator(19);
  std::string block(1 << 20, '\0');
  for (std::uint64_t done = 0; out && done < size; done += block.size()) {
    for (std::size_t i = 0; i < block.size(); i += 8) {
      const std::uint64_t word = generator();
      std::memcpy(block.data() + i, &word, 8);
    }
    out.write(block.data(), static_cast<std::streamsize>(std::min<std::uint64_t>(
                                block.size(), size - done)));
  }
  return static_cast<bool>(out);
}

// Runs argv with the environment amended, output discarded; its wall time in seconds, or
// nothing when it could not run or failed.
std::optional<double> timed(std::vector<std::string> argv,
                            const std::map<std::string, std::string>& extraEnv) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    if (!extraEnv.contains(entry.substr(0, entry.find('=')))) env.push_back(entry);
  }
  for (const auto& [k, v] : extraEnv) env.push_back(k + "=" + v);
  std::vector<char*> args, envp;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  const auto start = Clock::now();
  pid_t pid = -1;
  const int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return std::nullopt;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return seconds;
}

std::uint64_t fileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

}  // namespace

TERVAIN_BENCH_SECTION(ansibleSection, "ansible") {
  using tervain::bench::report;
  if (!timed({"ansible", "--version"}, {})) {
    std::fprintf(stderr, "ansible: not installed (scripts/deps installs ansible-core), skipped\n");
    return;
  }
  tervain::testing::AgentProcess::Options options;
  options.env.emplace("TERVAIN_DULK_DISABLE", "1");
  tervain::testing::AgentProcess agent(options);
  tervain::testing::TempDir local;
  const std::string source = local.file("payload.bin");
  if (!writeRandomFile(source, kFileBytes)) {
    std::fprintf(stderr, "ansible: could not write the file\n");
    return;
  }
  const std::string inventory = local.file("hosts.ini");
  std::ofstream(inventory) << "guest ansible_connection=tervain ansible_tervain_address=unix:"
                           << agent.socketPath()
                           << " ansible_python_interpreter=/usr/bin/python3\n";
  std::ofstream(local.file("ansible.cfg")) << "";
  const std::map<std::string, std::string> env = {
      {"ANSIBLE_CONFIG", local.file("ansible.cfg")},
      {"ANSIBLE_CONNECTION_PLUGINS", TERVAIN_SOURCE_DIR "/contrib/ansible/plugins/connection"},
      {"ANSIBLE_LOCAL_TEMP", local.path()},
      {"ANSIBLE_PIPELINING", "true"},
  };
  const std::string viaAnsible = agent.dir().file("copied-by-ansible.bin");
  const std::string viaCp = agent.dir().file("copied-by-cp.bin");

  double copyBest = 0;
  double pingBest = 0;
  double cpBest = 0;
  auto best = [](double& slot, std::optional<double> seconds) {
    if (seconds && (slot == 0 || *seconds < slot)) slot = *seconds;
  };
  for (int attempt = 0; attempt < 3; ++attempt) {
    best(pingBest, timed({"ansible", "guest", "-i", inventory, "-m", "ansible.builtin.ping"}, env));
    ::unlink(viaAnsible.c_str());
    const auto copy = timed({"ansible", "guest", "-i", inventory, "-m", "ansible.builtin.copy",
                             "-a", "src=" + source + " dest=" + viaAnsible},
                            env);
    if (copy && fileSize(viaAnsible) == kFileBytes) {
      best(copyBest, copy);
    } else {
      std::fprintf(stderr, "ansible: the copy run failed\n");
    }
    ::unlink(viaCp.c_str());
    const auto cp = timed({TERVAIN_CTL_PATH, "--connect", "unix:" + agent.socketPath(), "cp",
                           source, "guest:" + viaCp},
                          {});
    if (cp && fileSize(viaCp) == kFileBytes) {
      best(cpBest, cp);
    } else {
      std::fprintf(stderr, "ansible: the tervainctl cp run failed\n");
    }
  }
  report("ansible_copy_s", copyBest);
  report("ansible_ping_s", pingBest);
  report("tervainctl_cp_s", cpBest);
  report("ansible_copy_vs_cp", cpBest > 0 ? copyBest / cpBest : 0);
}
