#!/usr/bin/env python3
"""Checks the macOS packaging files: each property list parses, has the keys launchd, codesign
and the privacy framework read, and all of them agree on the agent's identifier and install path
with each other, with the scripts and with the build.

    check_packaging_plists.py SOURCE_ROOT

Prints one line per problem and exits 1 if there was any.
"""
import plistlib
import re
import sys
import uuid
from pathlib import Path
from xml.parsers.expat import ExpatError

root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).resolve().parent.parent)
packaging = root / "packaging" / "macos"
problems = []


def expect(condition, message):
    if not condition:
        problems.append(message)
    return condition


def load(name):
    path = packaging / name
    try:
        with path.open("rb") as f:
            value = plistlib.load(f)
    except (OSError, plistlib.InvalidFileException, ValueError, ExpatError) as error:
        problems.append(f"{name}: not a readable property list ({error})")
        return None
    expect(isinstance(value, dict), f"{name}: the top level is not a dictionary")
    return value if isinstance(value, dict) else None


def shell_value(script, name):
    match = re.search(rf"^{name}=(\S+)$", (packaging / script).read_text(), re.MULTILINE)
    return match.group(1) if match else None


# The identity as the scripts define it; everything else must agree with it.
label = shell_value("common.sh", "tervain_label")
install_dir = shell_value("common.sh", "tervain_install_dir")
binary_name = shell_value("common.sh", "tervain_binary_name")
expect(label, "common.sh: no tervain_label")
expect(install_dir and install_dir.startswith("/"), "common.sh: no absolute tervain_install_dir")
expect(binary_name == "TervainVMAgent", "common.sh: tervain_binary_name is not TervainVMAgent")
installed = f"{install_dir}/{binary_name}"

cmake = (root / "CMakeLists.txt").read_text()
version = re.search(r"project\(TervainVMAgent VERSION (\S+)", cmake)
deployment = re.search(r'CMAKE_OSX_DEPLOYMENT_TARGET "([^"]+)"', cmake)

info = load("Info.plist")
if info is not None:
    expect(info.get("CFBundleIdentifier") == label,
           f"Info.plist: CFBundleIdentifier is {info.get('CFBundleIdentifier')!r}, not {label!r}")
    expect(info.get("CFBundleExecutable") == binary_name, "Info.plist: CFBundleExecutable")
    expect(info.get("CFBundleInfoDictionaryVersion") == "6.0",
           "Info.plist: CFBundleInfoDictionaryVersion is not 6.0")
    if expect(version, "CMakeLists.txt: no project version"):
        for key in ("CFBundleShortVersionString", "CFBundleVersion"):
            expect(info.get(key) == version.group(1),
                   f"Info.plist: {key} is {info.get(key)!r}, the project is {version.group(1)}")
    if expect(deployment, "CMakeLists.txt: no CMAKE_OSX_DEPLOYMENT_TARGET"):
        expect(info.get("LSMinimumSystemVersion") == deployment.group(1),
               "Info.plist: LSMinimumSystemVersion differs from CMAKE_OSX_DEPLOYMENT_TARGET")

agent = load(f"{label}.plist")
if agent is not None:
    expect(agent.get("Label") == label, f"LaunchAgent: Label is {agent.get('Label')!r}")
    expect(agent.get("ProgramArguments") == [installed],
           f"LaunchAgent: ProgramArguments is {agent.get('ProgramArguments')!r}, not [{installed!r}]")
    expect(agent.get("RunAtLoad") is True, "LaunchAgent: RunAtLoad is not true")
    expect(agent.get("KeepAlive") is True, "LaunchAgent: KeepAlive is not true")
    expect(agent.get("LimitLoadToSessionType") == "Aqua",
           "LaunchAgent: LimitLoadToSessionType is not Aqua")
    expect(agent.get("ProcessType") == "Interactive", "LaunchAgent: ProcessType is not Interactive")
    # macOS 13+ names a login item by this bundle identifier in System Settings > Login Items.
    expect(agent.get("AssociatedBundleIdentifiers") == [label],
           f"LaunchAgent: AssociatedBundleIdentifiers is {agent.get('AssociatedBundleIdentifiers')!r}, not [{label!r}]")
    for key in ("StandardErrorPath", "StandardOutPath"):
        expect(isinstance(agent.get(key), str) and agent[key].endswith(f"/{binary_name}.log"),
               f"LaunchAgent: {key} is not a path to {binary_name}.log")

profile = load(f"{label}.mobileconfig")
if profile is not None:
    uuids = []
    expect(profile.get("PayloadType") == "Configuration", "profile: PayloadType is not Configuration")
    expect(profile.get("PayloadVersion") == 1, "profile: PayloadVersion is not 1")
    for key in ("PayloadIdentifier", "PayloadDisplayName"):
        expect(isinstance(profile.get(key), str) and profile[key], f"profile: no {key}")
    uuids.append(profile.get("PayloadUUID"))
    content = profile.get("PayloadContent")
    tcc = [p for p in content if isinstance(p, dict)] if isinstance(content, list) else []
    tcc = [p for p in tcc if p.get("PayloadType") == "com.apple.TCC.configuration-profile-policy"]
    if expect(len(tcc) == 1, "profile: not exactly one com.apple.TCC.configuration-profile-policy payload"):
        payload = tcc[0]
        uuids.append(payload.get("PayloadUUID"))
        expect(payload.get("PayloadVersion") == 1, "profile: the TCC payload's PayloadVersion is not 1")
        services = payload.get("Services") or {}
        expect(set(services) == {"Accessibility", "PostEvent"},
               f"profile: services are {sorted(services)}, not Accessibility and PostEvent")
        for service, entries in services.items():
            kinds = {}
            for entry in entries if isinstance(entries, list) else []:
                kinds[entry.get("IdentifierType")] = entry.get("Identifier")
                expect(entry.get("Authorization") == "Allow", f"profile: {service} is not Allow")
                expect(entry.get("CodeRequirement") == "__CODE_REQUIREMENT__",
                       f"profile: {service} has no __CODE_REQUIREMENT__ placeholder")
                expect(entry.get("StaticCode") is False, f"profile: {service} StaticCode is not false")
            expect(kinds == {"bundleID": label, "path": installed},
                   f"profile: {service} entries are {kinds}, not {label} and {installed}")
    for value in uuids:
        try:
            uuid.UUID(str(value))
        except ValueError:
            problems.append(f"profile: PayloadUUID {value!r} is not a UUID")
    expect(len(set(uuids)) == len(uuids), "profile: PayloadUUIDs repeat")

# The scripts take the identity from common.sh only (comments may name it).
for script in ("install.sh", "uninstall.sh", "sign.sh"):
    lines = (packaging / script).read_text().splitlines()
    text = "\n".join(line for line in lines if not line.lstrip().startswith("#"))
    expect('source "$here/common.sh"' in text, f"{script}: does not source common.sh")
    expect(label not in text and (install_dir or "/") not in text,
           f"{script}: spells out the identifier or install path instead of using common.sh")

for problem in problems:
    print(problem)
if problems:
    sys.exit(1)
print("packaging property lists: ok")
