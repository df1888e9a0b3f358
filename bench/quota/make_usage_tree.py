#!/usr/bin/env python3
"""Writes a Claude Code home whose transcripts hold ENTRIES counted responses spread over the
last 60 days up to now (400 sessions over 20 projects), for the status-line benchmark: the
stores a heavy user's status line reads. usage: make_usage_tree.py DIR ENTRIES"""
import json, os, random, sys, time, uuid

root, entries = sys.argv[1], int(sys.argv[2])
rng = random.Random(7)
now = time.time()
sessions = [(f"/home/dev/src/project{rng.randrange(20)}", str(uuid.UUID(int=rng.getrandbits(128)))) for _ in range(400)]
files = {}
for i in range(entries):
    project, session = sessions[i % len(sessions)]
    at = now - 60 * 86400 * (1 - i / entries) - 60
    stamp = time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(at)) + ".000Z"
    line = {"parentUuid": None, "isSidechain": False, "userType": "external", "cwd": project, "sessionId": session,
            "version": "2.1.110", "type": "assistant", "uuid": str(uuid.UUID(int=rng.getrandbits(128))), "timestamp": stamp,
            "requestId": f"req_{i:08d}",
            "message": {"id": f"msg_{i:08d}", "type": "message", "role": "assistant",
                        "model": rng.choice(["claude-sonnet-4-5-20250929", "claude-opus-4-1-20250805"]),
                        "content": [{"type": "text", "text": "done"}], "stop_reason": "end_turn",
                        "usage": {"input_tokens": rng.randrange(1, 50), "cache_creation_input_tokens": rng.randrange(0, 5000),
                                  "cache_read_input_tokens": rng.randrange(0, 90000), "output_tokens": rng.randrange(10, 2000)}}}
    path = os.path.join(root, "projects", project.replace("/", "-"), session + ".jsonl")
    files.setdefault(path, []).append(json.dumps(line, separators=(",", ":")))
for path, lines in files.items():
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
