"""An etcd cluster for the lab: `size` members on the loopback of one of the
lab's namespaces, each with its own data directory under the lab's work
directory, started and stopped by the test.  The namespace is the lab's own,
so its ports are free; members listen on 127.0.0.1 only."""
import json
import os

from lab import LabError, wait_for

ETCD = "/usr/bin/etcd"


class EtcdCluster:
    def __init__(self, lab, ns, size=3, base_port=23790, name="etcd"):
        self.lab = lab
        self.ns = ns
        self.name = name
        self.members = []
        for i in range(size):
            client = base_port + 2 * i
            self.members.append({
                "name": f"m{i}",
                "client": f"http://127.0.0.1:{client}",
                "peer": f"http://127.0.0.1:{client + 1}",
                "dir": os.path.join(lab.workdir, f"{name}-m{i}"),
                "proc": None,
            })
        self.initial = ",".join(f"{m['name']}={m['peer']}" for m in self.members)

    @property
    def endpoints(self):
        return [m["client"] for m in self.members]

    def start(self, timeout=20):
        for i in range(len(self.members)):
            self.start_member(i, wait=False)
        wait_for(self.healthy, timeout=timeout, what=f"{self.name} cluster to elect a leader")

    def start_member(self, i, wait=True):
        m = self.members[i]
        state = "existing" if os.path.isdir(m["dir"]) else "new"
        proc, log = self.lab.spawn(
            self.ns, ETCD, "--name", m["name"], "--data-dir", m["dir"],
            "--listen-client-urls", m["client"], "--advertise-client-urls", m["client"],
            "--listen-peer-urls", m["peer"], "--initial-advertise-peer-urls", m["peer"],
            "--initial-cluster", self.initial, "--initial-cluster-state", state,
            "--initial-cluster-token", self.name, "--heartbeat-interval", "100",
            "--election-timeout", "1000", "--log-level", "error",
            name=f"{self.name}-{m['name']}")
        m["proc"], m["log"] = proc, log
        if wait:
            wait_for(lambda: self.member_healthy(i), timeout=20,
                     what=f"{self.name} member {m['name']} to answer")

    def stop_member(self, i):
        m = self.members[i]
        if m["proc"] is not None:
            self.lab.stop(m["proc"], timeout=10)
            m["proc"] = None

    def stop(self):
        for i in range(len(self.members)):
            self.stop_member(i)

    def _ask(self, endpoint, path, body, timeout=2):
        """POST of a JSON body to a member's gateway, from inside the
        namespace (curl-free: python in the namespace); the answer or
        None."""
        script = ("import json,sys,urllib.request\n"
                  "r=urllib.request.Request(sys.argv[1],data=sys.argv[2].encode(),"
                  "headers={'Content-Type':'application/json'})\n"
                  "print(urllib.request.urlopen(r,timeout=float(sys.argv[3])).read().decode())\n")
        r = self.lab.run(self.ns, "python3", "-c", script, endpoint + path, json.dumps(body),
                         str(timeout), timeout=timeout + 5, check=False)
        if r.returncode != 0:
            return None
        try:
            return json.loads(r.stdout)
        except ValueError:
            return None

    def member_healthy(self, i):
        answer = self._ask(self.members[i]["client"], "/v3/maintenance/status", {})
        return bool(answer and answer.get("leader"))

    def healthy(self):
        return all(self.member_healthy(i) for i, m in enumerate(self.members)
                   if m["proc"] is not None)

    def get_prefix(self, prefix):
        """{key: value} of every key under `prefix`, from any member that
        answers."""
        import base64
        end = prefix[:-1] + chr(ord(prefix[-1]) + 1)
        body = {"key": base64.b64encode(prefix.encode()).decode(),
                "range_end": base64.b64encode(end.encode()).decode()}
        for m in self.members:
            if m["proc"] is None:
                continue
            answer = self._ask(m["client"], "/v3/kv/range", body)
            if answer is not None:
                return {base64.b64decode(kv["key"]).decode(): json.loads(base64.b64decode(kv["value"]))
                        for kv in answer.get("kvs", [])}
        raise LabError(f"no member of {self.name} answered")
