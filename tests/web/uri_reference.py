# Generates URIs and references and prints how urllib.parse splits and
# joins them, one tab-separated line each, for test_siuri.
import random
from urllib.parse import urljoin, urlsplit

rnd = random.Random(3986)
SEGMENTS = ["a", "b", "g", "x%41y", "c;p", "~u", "d-e.f", ".", "..", "", "s!$&'()*+,=", "@:"]
HOSTS = ["example.com", "a", "10.0.0.1", "[::1]", "[2001:db8::7]", "h-1.test", "xn--bcher-kva.de"]

def pick(chance, value):
    return value() if rnd.random() < chance else ""

# urljoin drops empty segments, keeps the dot segments of a network-path
# reference and keeps the base's fragment for an empty reference, where
# RFC 3986 does otherwise: the joined cases avoid those.
def path(absolute, empty=True):
    choices = SEGMENTS if empty else [x for x in SEGMENTS if x]
    segs = [rnd.choice(choices) for _ in range(rnd.randint(0, 4))]
    text = "/".join(segs)
    return ("/" + text) if absolute or not segs else text

def uri(empty=True):
    scheme = rnd.choice(["http", "https", "ftp"])
    user = pick(0.3, lambda: rnd.choice(["user", "u:pw", "a%20b"]) + "@")
    port = pick(0.4, lambda: ":" + str(rnd.randint(1, 65535)))
    query = pick(0.4, lambda: "?" + rnd.choice(["q", "x=1&y=2", "a/b?c", "%2F"]))
    frag = pick(0.3, lambda: "#" + rnd.choice(["top", "s/./x", "f?g"]))
    return scheme + "://" + user + rnd.choice(HOSTS) + port + path(True, empty) + query + frag

def reference():
    kind = rnd.randint(0, 3)
    head = ["", "/", "//other.test/", "?only"][kind]
    body = "" if kind == 3 else path(False, False).lstrip("/")
    if kind == 2:
        body = "/".join(x for x in body.split("/") if x not in (".", ".."))
    if kind == 0 and (":" in body.split("/")[0] or not body):
        body = "./" + body
    query = pick(0.3, lambda: "?" + rnd.choice(["y", "k=v"]))
    frag = pick(0.3, lambda: "#" + rnd.choice(["s", "z"]))
    return head + body + query + frag

for _ in range(300):
    u = uri()
    s = urlsplit(u)
    port = "" if s.port is None else str(s.port)
    print("\t".join(["P", u, s.scheme, s.netloc, s.hostname or "", port, s.path, s.query, s.fragment]))
for _ in range(300):
    base, ref = uri(False), reference()
    print("\t".join(["R", base, ref, urljoin(base, ref)]))
