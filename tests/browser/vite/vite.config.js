// docs/devhost.md's Vite configuration; the test names the host's address.
const target = process.env.WEBAPI_HOST_URL || 'http://127.0.0.1:8080';

export default {
  server: {
    host: '127.0.0.1',
    port: 5173,
    proxy: {
      '/webapi': { target, changeOrigin: true },
      '/sim': { target, changeOrigin: true },
      '/device.json': { target, changeOrigin: true },
    },
  },
};
