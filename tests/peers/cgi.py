#!/usr/bin/env python3
"""cgi KESTAL_CGI: forms, downloads and credentials through lighttpd, and through nginx with fcgiwrap, asked for with curl."""
import os
import re
import sys

import peer

SECRET = 'p"w, =\\c:d'
FILE = peer.noise(3 << 20)

program = sys.argv[1]
lighttpd, nginx, fcgiwrap, curl = peer.need("lighttpd", "nginx", "fcgiwrap", "curl")
accounts = peer.write("accounts.ini", b'[accounts]\nme = "%s"\n' % SECRET.replace("\\", "\\\\").replace('"', '\\"').encode())
served = peer.write("served file", FILE)
for name, variables in {"open": f"KESTAL_CGI_FILE='{served}'", "large": "KESTAL_CGI_LARGE=1",
                        "closed": f"KESTAL_CGI_ACCOUNTS='{accounts}'", "broken": "KESTAL_CGI_ACCOUNTS=/missing"}.items():
    os.chmod(peer.write(f"root/{name}.cgi", f"#!/bin/sh\n{variables} exec '{program}'\n".encode()), 0o755)


def start_lighttpd(port):
    configuration = peer.write("lighttpd.conf", f"""
        server.modules = ("mod_cgi")
        server.port = {port}
        server.bind = "127.0.0.1"
        server.document-root = "{peer.folder}/root"
        server.upload-dirs = ("{peer.folder}")
        cgi.assign = (".cgi" => "")
        """.encode())
    peer.start([lighttpd, "-D", "-f", configuration])


def start_nginx(port):
    wrapped = os.path.join(peer.folder, "fcgiwrap")
    configuration = peer.write("nginx.conf", f"""
        daemon off; master_process off; pid {peer.folder}/nginx.pid; error_log {peer.folder}/nginx.log;
        events {{ }}
        http {{
            access_log off; client_max_body_size 8m;
            {"".join(f"{kind}_temp_path {peer.folder}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))}
            server {{
                listen 127.0.0.1:{port};
                location / {{
                    fastcgi_pass unix:{wrapped};
                    fastcgi_param SCRIPT_FILENAME {peer.folder}/root$uri;
                    fastcgi_param REQUEST_METHOD $request_method;
                    fastcgi_param QUERY_STRING $query_string;
                    fastcgi_param CONTENT_TYPE $content_type;
                    fastcgi_param CONTENT_LENGTH $content_length;
                    fastcgi_param SERVER_ADDR $server_addr;
                }}
            }}
        }}""".encode())
    peer.start([fcgiwrap, "-c", 2, "-s", f"unix:{wrapped}"])
    peer.wait_for(lambda: os.path.exists(wrapped), "fcgiwrap")
    peer.start([nginx, "-p", peer.folder, "-e", "stderr", "-c", configuration])


def ask(url, *options):
    """Status, head and body of the last answer."""
    output = os.path.join(peer.folder, "output")
    head = peer.run([curl, "--silent", "--show-error", "--noproxy", "*", "--max-time", peer.LIMIT, "--dump-header", "-",
                     "--output", output, *options, url]).decode()
    last = head.replace("\r\n", "\n").strip().split("\n\n")[-1]
    return int(last.split()[1]), last, peer.read("output")


def check(start):
    port = peer.free_port()
    start(port)
    peer.wait_for(lambda: peer.answers(port), "a web server")
    url = f"http://127.0.0.1:{port}"

    status, head, body = ask(f"{url}/open.cgi?name=%3Cscript%3E%26+x")
    assert status == 200 and b"<dd>&lt;script&gt;&amp;+x</dd>" in body and b"<script" not in body, body
    assert f"Content-Length: {len(body)}" in head and "Content-Type: text/html" in head, head
    assert ask(f"{url}/open.cgi", "--head")[0] == 200
    assert ask(f"{url}/open.cgi", "--request", "DELETE")[0] == 405
    status, _, body = ask(f"{url}/open.cgi", "--data-urlencode", "text=a+b c<\u00e9", "--data", "name=%C3%A9")
    assert status == 200 and "<dd>a+b c&lt;\u00e9</dd>".encode() in body and "Hello, \u00e9.".encode() in body, body

    # A body that comes in several reads is refused unless the program asks for the whole of it.
    long_form = f"text={'x' * 300000}&name=last"
    upload = ["--data", "@" + peer.write("form", long_form.encode())]
    assert ask(f"{url}/open.cgi", *upload)[0] == 400
    status, _, body = ask(f"{url}/large.cgi", *upload)
    assert status == 200 and b"x" * 300000 in body and b"Hello, last." in body

    status, head, body = ask(f"{url}/open.cgi?download")
    assert status == 200 and body == FILE and f"Content-Length: {len(FILE)}" in head, head
    assert ask(f"{url}/closed.cgi?download", "--digest", "--user", f"me:{SECRET}")[0] == 404

    status, head, _ = ask(f"{url}/closed.cgi")
    assert status == 401 and re.search(r'^WWW-Authenticate: Digest realm="127\.0\.0\.1", qop="auth", nonce="[0-9a-f]{32}", '
                                       r'opaque="[0-9a-f]{32}", algorithm="md5"$', head, re.MULTILINE), head
    for kind in ("--digest", "--basic"):
        for form in ([], ["--data", "name=me"]):
            status, _, body = ask(f"{url}/closed.cgi?a=b,c", kind, "--user", f"me:{SECRET}", *form)
            assert status == 200 and b"b,c" in body and (b"Hello, me." in body) == bool(form), f"{kind} {status}"
            for user in (f"me:{SECRET}x", "me:", f"you:{SECRET}"):
                assert ask(f"{url}/closed.cgi", kind, "--user", user, *form)[0] == 401, f"{kind} {user}"
    assert ask(f"{url}/broken.cgi")[0] == 500


check(start_lighttpd)
check(start_nginx)
