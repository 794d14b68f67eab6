"""A browser without a screen, for the checks of pages."""
import json
import os
import select
import shutil
import subprocess
import sys
import time

FRAME = 'new Promise(done => requestAnimationFrame(() => setTimeout(done)))'  # one more is painted
DEADLINE = 60  # seconds for one answer of the browser, which takes some milliseconds


def expect(holds, what):
    if not holds:
        sys.exit('%s: not so: %s' % (os.path.basename(sys.argv[0]), what))


class Browser:
    """Chromium, driven over a pair of pipes: commands and answers are JSON, each ends with a zero."""

    def __init__(self, scratch):
        command = shutil.which('chromium') or sys.exit('there is no chromium')
        to_browser, self.output = os.pipe()
        self.input, from_browser = os.pipe()

        def take_pipes():
            os.dup2(to_browser, 63)
            os.dup2(from_browser, 64)
            os.dup2(63, 3)
            os.dup2(64, 4)

        self.log = open(os.path.join(scratch, 'browser.log'), 'w')
        self.process = subprocess.Popen(
            [command, '--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
             '--disable-background-networking', '--disable-breakpad', '--disable-component-update', '--no-first-run',
             '--host-resolver-rules=MAP * ~NOTFOUND', '--hide-scrollbars',
             '--user-data-dir=' + os.path.join(scratch, 'profile'), '--remote-debugging-pipe',
             'about:blank'],
            preexec_fn=take_pipes, close_fds=False, stdout=self.log, stderr=self.log,
            stdin=subprocess.DEVNULL, start_new_session=True)
        os.close(to_browser)
        os.close(from_browser)
        self.number = 0
        self.buffer = b''
        self.events = []
        page = self.call('Target.createTarget', url='about:blank')['targetId']
        self.session = None
        self.session = self.call('Target.attachToTarget', targetId=page, flatten=True)['sessionId']
        for domain in ('Page', 'Runtime', 'Log', 'Network'):
            self.call(domain + '.enable')

    def end(self):
        os.killpg(self.process.pid, 9)
        self.process.wait()
        self.log.close()

    def read(self, end):
        while b'\0' not in self.buffer:
            if not select.select([self.input], [], [], max(0, end - time.monotonic()))[0]:
                raise TimeoutError('no answer: ' + open(self.log.name).read()[-2000:])
            block = os.read(self.input, 1 << 20)
            if not block:
                raise EOFError('the browser has ended: ' + open(self.log.name).read()[-2000:])
            self.buffer += block
        text, self.buffer = self.buffer.split(b'\0', 1)
        return json.loads(text)

    def call(self, method, **parameters):
        self.number += 1
        message = {'id': self.number, 'method': method, 'params': parameters}
        if getattr(self, 'session', None):
            message['sessionId'] = self.session
        data = json.dumps(message).encode() + b'\0'
        while data:
            data = data[os.write(self.output, data):]
        end = time.monotonic() + DEADLINE
        while True:
            answer = self.read(end)
            if answer.get('id') == self.number:
                if 'error' in answer:
                    raise RuntimeError(method + ': ' + str(answer['error']))
                return answer['result']
            self.events.append(answer)

    def told(self, method):
        """Events of a kind. Any of them may come before the answer to the command that they follow from."""
        self.value('0')
        return [event['params'] for event in self.events if event.get('method') == method]

    def open(self, path):
        self.call('Page.navigate', url='about:blank')
        self.until("location.href === 'about:blank'", 'the page before is left')
        self.events = []
        begin = time.monotonic()
        self.call('Page.navigate', url='file://' + path)
        self.until("location.href !== 'about:blank' && document.readyState === 'complete'", 'the page opens')
        self.value(FRAME)
        return time.monotonic() - begin

    def value(self, expression, **where):
        answer = self.call('Runtime.evaluate', expression=expression, returnByValue=True,
                           awaitPromise=True, **where)
        if 'exceptionDetails' in answer:
            raise RuntimeError(expression + ': ' + json.dumps(answer['exceptionDetails']))
        return answer['result'].get('value')

    def until(self, expression, what):
        def holds():
            try:
                return self.value(expression)
            except RuntimeError:  # the page was left before it answered
                return False

        self.wait_for(holds, what)

    @staticmethod
    def wait_for(holds, what):
        end = time.monotonic() + DEADLINE
        while not holds():
            expect(time.monotonic() < end, what)
            time.sleep(0.02)

    def complaints(self):
        """What the page did that it must not: errors, refused scripts, and requests for anything else."""
        self.value('new Promise(done => setTimeout(done))')
        told = []
        for event in self.events:
            method, parameters = event.get('method'), event.get('params', {})
            if method in ('Runtime.exceptionThrown', 'Runtime.consoleAPICalled', 'Log.entryAdded'):
                told.append(event)
            elif method == 'Network.requestWillBeSent':
                url = parameters['request']['url']
                if not url.startswith(('file:///', 'about:')) or parameters.get('type') != 'Document':
                    told.append(event)
        return told
